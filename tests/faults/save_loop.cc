// zelfaults-save: the process the crash tests kill. It makes the changes of
// the steps it is given to the four sendmail files of a folder through the
// configuration engine and the mail record views, each change saved at once
// (no rebuild command is installed, so nothing but the engine's saves run).
//
//   zelfaults-save DIR FIRST_STEP [LAST_STEP]
//
// A step sets or deletes one key in each file, so a step run again on files
// that hold part or all of its changes gives the same files: a run that was
// killed is completed by running the same step again. Exit status 0, or 1
// with the error on standard error.
#include <cstdio>
#include <exception>
#include <string>

#include "email/file_views.h"
#include "email/tables.h"

namespace {

void Step(const std::string& dir, long s) {
  const std::string n = std::to_string(s);
  // The files in an order that changes with the step, so that a kill finds
  // every file both before and after its save.
  for (int k = 0; k < 4; ++k) {
    switch ((k + s) % 4) {
      case 0: {
        auto hosts = email::LocalHostNames::Get<email::HostNames>(dir + "/local-host-names", true);
        const std::string name = "h" + std::to_string(s % 97) + ".example";
        if (s % 3 == 0) {
          hosts->Delete(name);
        } else {
          hosts->Create(name);
          hosts->Post("");
        }
        break;
      }
      case 1: {
        auto lines = email::VirtualUserTable::Get<email::VirtualEmails>(dir + "/virtusertable", true);
        lines->Create("k" + std::to_string(s % 89) + "@d.example");
        lines->target = "t" + n + "+d.example";
        lines->Post("");
        break;
      }
      case 2: {
        auto entry = email::AliasTable::Get<email::Aliases>(dir + "/aliases", true);
        const std::string local = "k" + std::to_string(s % 89);
        entry->Create(local + "+d.example");
        entry->alias = local + "\\@d.example, f" + n + "@x.example";
        entry->Post("");
        break;
      }
      case 3: {
        auto access = email::AccessDb::Get<email::SourceTarget>(dir + "/access", true);
        const std::string source = "s" + std::to_string(s % 83) + ".example";
        if (s % 5 == 0) {
          access->Delete(source);
        } else {
          access->Create(source);
          access->target.Set(s % 2 ? "OK" : "REJECT");
          access->Post("");
        }
        break;
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::fprintf(stderr, "usage: zelfaults-save DIR FIRST_STEP [LAST_STEP]\n");
    return 2;
  }
  try {
    const std::string dir = argv[1];
    const long first = std::stol(argv[2]);
    const long last = argc == 4 ? std::stol(argv[3]) : first;
    for (long s = first; s <= last; ++s) Step(dir, s);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zelfaults-save: %s\n", e.what());
    return 1;
  }
  return 0;
}
