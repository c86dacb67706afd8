// zelpnl-newaliases: rebuilds aliases databases as `sendmail -bi` does, with
// its messages and exit status, for use as the panel's "sendmail-newaliases"
// command.
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "zelaliasdb/builder.h"
#include "zelapi/err.h"

namespace {

constexpr int kExitUsage = 64;     // as sendmail: EX_USAGE
constexpr int kExitSoftware = 70;  // as sendmail when it cannot create a map

const char kUsage[] =
    "usage: zelpnl-newaliases [-C CF] [-bi] [-oAFILE]... [--writer=db|makemap]\n"
    "                         [--sendmail PATH] [--makemap PATH] [FILE]...\n"
    "\n"
    "Rebuilds FILE.db, the hash database sendmail looks aliases up in, for each\n"
    "aliases FILE (given as an argument or with -oA), or else for each alias file\n"
    "of the sendmail configuration (-C CF, default /etc/mail/sendmail.cf). It\n"
    "reads the file as sendmail does, prints the same messages and summary line\n"
    "on standard output and exits with the same status. The new map is written\n"
    "under a temporary name and renamed into place.\n"
    "\n"
    "  -C CF            sendmail configuration: its AliasFile option when no FILE\n"
    "                   is given; also passed to sendmail for the names only its\n"
    "                   address parser can judge\n"
    "  -bi              accepted and ignored (sendmail's \"rebuild aliases\")\n"
    "  -oAFILE          an aliases file, as sendmail's option\n"
    "  --writer=db      write the map with Berkeley DB (the default)\n"
    "  --writer=makemap feed sendmail's makemap instead\n"
    "  --sendmail PATH  sendmail program (default /usr/sbin/sendmail)\n"
    "  --makemap PATH   makemap program (default /usr/sbin/makemap)\n"
    "\n"
    "Exit status: 0; sendmail's status for a rejected line (70, or 64 for some\n"
    "address errors); 64 for bad usage; 70 when a map cannot be written.\n";

int Usage(const std::string& problem) {
  std::cerr << "zelpnl-newaliases: " << problem << "\n" << kUsage;
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  zel_aliasdb::BuildOptions options;
  std::vector<std::string> files;
  std::string config;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      return 0;
    } else if (arg == "-bi") {
    } else if (arg == "-C") {
      const char* v = value();
      if (!v) return Usage("-C needs a file");
      config = v;
    } else if (arg.compare(0, 2, "-C") == 0) {
      config = arg.substr(2);
    } else if (arg.compare(0, 3, "-oA") == 0) {
      if (arg.size() == 3) return Usage("-oA needs a file, as -oAFILE");
      files.push_back(arg.substr(3));
    } else if (arg == "--writer=db") {
      options.writer = zel_aliasdb::Writer::kBerkeleyDb;
    } else if (arg == "--writer=makemap") {
      options.writer = zel_aliasdb::Writer::kMakemap;
    } else if (arg == "--sendmail" || arg == "--makemap") {
      const char* v = value();
      if (!v) return Usage(arg + " needs a path");
      (arg == "--sendmail" ? options.sendmail : options.makemap) = v;
    } else if (!arg.empty() && arg[0] == '-') {
      return Usage("unknown option " + arg);
    } else {
      files.push_back(arg);
    }
  }
  options.config = config;

  // Like sendmail's rebuild, not to be interrupted half-way: the signals a
  // terminal or a service manager sends wait until the maps are in place
  // (a build that fails removes its temporary files itself).
  sigset_t hold;
  sigemptyset(&hold);
  for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) sigaddset(&hold, sig);
  sigprocmask(SIG_BLOCK, &hold, nullptr);

  int status = 0;
  try {
    if (files.empty()) files = zel_aliasdb::AliasFilesOf(config.empty() ? "/etc/mail/sendmail.cf" : config);
    for (const std::string& file : files) {
      options.alias_file = file;
      const zel_aliasdb::BuildReport report = zel_aliasdb::Build(options);
      for (const std::string& line : report.output) std::cout << line << '\n';
      std::cout.flush();
      if (status == 0) status = report.exit_code;
    }
  } catch (const pnl_err::Error& e) {
    std::cout.flush();
    std::cerr << "zelpnl-newaliases: error: " << e.what() << "\n";
    return kExitSoftware;
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << "zelpnl-newaliases: error: " << e.what() << "\n";
    return kExitSoftware;
  }
  return status;
}
