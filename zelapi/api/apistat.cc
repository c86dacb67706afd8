#include <map>
#include <mutex>

#include "zelapi/api.h"

namespace apistat {
namespace {

struct Records {
  std::mutex mutex;
  std::map<std::string, std::string> implementations;
};

Records& GetRecords() {
  static Records* records = new Records;
  return *records;
}

}  // namespace

void ModuleInterface(const std::string& interface, const std::string& implementation) {
  Records& records = GetRecords();
  std::lock_guard lock(records.mutex);
  records.implementations[interface] = implementation;
}

std::string InterfaceImplementation(const std::string& interface) {
  Records& records = GetRecords();
  std::lock_guard lock(records.mutex);
  auto it = records.implementations.find(interface);
  return it == records.implementations.end() ? std::string() : it->second;
}

void Clear() {
  Records& records = GetRecords();
  std::lock_guard lock(records.mutex);
  records.implementations.clear();
}

}  // namespace apistat
