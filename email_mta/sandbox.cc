#include "email/sandbox.h"

#include <map>

namespace email {

namespace {

std::map<std::string, const SandboxWriter*>& Writers() {
  static std::map<std::string, const SandboxWriter*> writers;
  return writers;
}

}  // namespace

SandboxWriter::~SandboxWriter() = default;

SandboxRegistration::SandboxRegistration(std::string mta, const SandboxWriter& writer)
    : mta_(std::move(mta)) {
  Writers()[mta_] = &writer;
}

SandboxRegistration::~SandboxRegistration() { Writers().erase(mta_); }

const SandboxWriter* FindSandboxWriter(const std::string& mta) {
  const auto it = Writers().find(mta);
  return it == Writers().end() ? nullptr : it->second;
}

}  // namespace email
