// zel_aliasdb::SendmailOracle: asks sendmail itself what it makes of the
// aliases lines whose names only its address parser can judge (quotes,
// angle brackets, comments, routing characters, host parts, inner blanks,
// 8-bit or control bytes, over-long lines; see AliasesFile). What such a
// name becomes depends on sendmail's configuration (its rule sets, its
// blank substitute, the names of this host), so the answer comes from the
// real program with the same configuration, not from a copy of its rules.
//
// Each question is one run of `sendmail [-C CF] -bi -oA TEMP` on a
// temporary aliases file in a folder sendmail accepts (the folder of the
// file being built), holding the line twice: the first copy gives the
// messages, the key and the value; the second makes sendmail name the line
// in its duplicate warning, which is how the builder shows it too when a
// later line repeats the name. The file's last line, when the end of the
// file changes it (no line end, or a backslash before the last line end),
// is asked alone and then once more for its name. The temporary files are
// removed before Decide returns. One thread at a time. A sendmail run takes
// about 60 ms: this is for the few lines the builder cannot decide alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zel_aliasdb {

struct Verdict {
  // sendmail's messages about the line, each as the text after "FILE: "
  // ("line 12: a@b... cannot alias non-local names"), numbered as in the
  // original file.
  std::vector<std::string> messages;
  // What sendmail printed that was not about the file, whole, once each.
  std::vector<std::string> notes;
  int exit_code = 0;      // sendmail's exit status for this line alone
  bool stored = false;    // the line made an entry
  std::string key;        // as stored, without the trailing NUL
  std::string value;      // as stored, without the trailing NUL
  std::string shown;      // the name as sendmail's duplicate warning shows it
};

class SendmailOracle {
 public:
  // sendmail: the program; config: the sendmail.cf to pass with -C (empty:
  // sendmail's own); scratch_dir: where the temporary files go (must be a
  // folder sendmail accepts for alias files: not world-writable, nor below
  // one). Starts nothing yet.
  SendmailOracle(std::string sendmail, std::string config, std::string scratch_dir);

  // What sendmail makes of raw, the physical lines of one logical line
  // (line ends included; one is added when missing), which start at line
  // first_line of the original file. Throws pnl_err::Error(pnl_err::Kind::kAliasDb) naming
  // the line when sendmail cannot be run or builds no map.
  Verdict Decide(std::string_view raw, std::uint32_t first_line) const;

  // Runs sendmail on a whole file (alias_file itself, rebuilt in place by
  // sendmail) and returns its exit status; output receives what it printed.
  // For the files the builder does not read line by line (see AliasesFile).
  int RebuildWhole(const std::string& alias_file, std::string& output) const;

 private:
  std::vector<std::string> Command(const std::string& alias_file) const;
  // Runs sendmail on content; messages about its lines 1..physical become
  // the verdict's (renumbered from first_line), a duplicate warning after
  // them gives the shown name.
  Verdict Ask(std::string_view content, std::uint32_t physical, std::uint32_t first_line) const;

  std::string sendmail_;
  std::string config_;
  std::string scratch_dir_;
};

}  // namespace zel_aliasdb
