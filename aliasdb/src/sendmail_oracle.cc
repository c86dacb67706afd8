#include "zelaliasdb/sendmail_oracle.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "child.h"
#include "zelaliasdb/aliases_file.h"
#include "zelaliasdb/hash_map.h"
#include "zelapi/err.h"
#include "zelapi/file.h"

namespace zel_aliasdb {

namespace {

// The temporary aliases file and the map sendmail makes of it, removed when
// the question is answered.
class TempAliases {
 public:
  TempAliases(const std::string& dir, std::string_view content) : ops_(pnl_file::CurrentOps()) {
    path_ = dir + "/.zelaliasdb-line.XXXXXX";
    int fd = -1;
    int err = ops_->MakeTemp(path_, fd);
    if (err != 0)
      throw pnl_err::Error(pnl_err::Kind::kAliasDb, dir, std::string("cannot make a temporary file: ") + std::strerror(err));
    std::size_t done = 0;
    while (done < content.size()) {
      std::size_t written = 0;
      if ((err = ops_->Write(fd, content.data() + done, content.size() - done, written)) != 0) break;
      done += written;
    }
    ops_->Close(fd);
    if (err != 0) {
      ops_->Unlink(path_);
      throw pnl_err::Error(pnl_err::Kind::kAliasDb, path_, std::string("cannot write: ") + std::strerror(err));
    }
  }
  ~TempAliases() {
    ops_->Unlink(path_ + ".db");
    ops_->Unlink(path_);
  }
  TempAliases(const TempAliases&) = delete;
  TempAliases& operator=(const TempAliases&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::shared_ptr<pnl_file::Ops> ops_;
  std::string path_;
};

std::string_view StripNul(std::string_view s) {
  if (!s.empty() && s.back() == '\0') s.remove_suffix(1);
  return s;
}

constexpr std::string_view kDuplicate = "... Warning: duplicate alias name ";

}  // namespace

SendmailOracle::SendmailOracle(std::string sendmail, std::string config, std::string scratch_dir)
    : sendmail_(std::move(sendmail)), config_(std::move(config)), scratch_dir_(std::move(scratch_dir)) {}

std::vector<std::string> SendmailOracle::Command(const std::string& alias_file) const {
  std::vector<std::string> argv{sendmail_};
  if (!config_.empty()) {
    argv.push_back("-C");
    argv.push_back(config_);
  }
  argv.push_back("-bi");
  argv.push_back("-oA" + alias_file);
  return argv;
}

namespace {

std::uint32_t CountLines(std::string_view text) {
  std::uint32_t n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

}  // namespace

Verdict SendmailOracle::Decide(std::string_view raw, std::uint32_t first_line) const {
  const bool backslash_at_end = raw.size() >= 2 && raw.substr(raw.size() - 2) == "\\\n";
  if (!raw.empty() && raw.back() == '\n' && !backslash_at_end) {
    // The line twice: messages, key and value from the first copy, the name
    // as a duplicate warning shows it from the second.
    const std::string once(raw);
    return Ask(once + once, CountLines(once), first_line);
  }
  // The file's last line, where the end of the file changes the line: no
  // line end after it, or a backslash whose next line does not exist. It is
  // asked alone, as it stands; then, for the duplicate warning's name only,
  // twice with a plain line end.
  Verdict verdict = Ask(raw, CountLines(raw) + 1, first_line);
  if (verdict.stored) {
    std::string plain(raw);
    if (!plain.empty() && plain.back() == '\n') plain.pop_back();
    if (!plain.empty() && plain.back() == '\\') plain.pop_back();
    plain.push_back('\n');
    verdict.shown = Ask(plain + plain, CountLines(plain), first_line).shown;
  }
  return verdict;
}

Verdict SendmailOracle::Ask(std::string_view content, std::uint32_t physical, std::uint32_t first_line) const {
  TempAliases temp(scratch_dir_, content);

  Child run(Command(temp.path()), false, scratch_dir_);
  Verdict verdict;
  verdict.exit_code = run.Wait();
  const std::string where = "line " + std::to_string(first_line);

  // Line messages name the file shortened, the summary names it whole.
  const std::string prefix = ShortFileName(temp.path()) + ": ";
  const std::string full_prefix = temp.path() + ": ";
  std::string_view out = run.output();
  while (!out.empty()) {
    const std::size_t nl = out.find('\n');
    std::string_view text = out.substr(0, nl);
    out = nl == std::string_view::npos ? std::string_view() : out.substr(nl + 1);
    if (text.empty()) continue;
    if (text.substr(0, full_prefix.size()) == full_prefix &&
        text.find(" aliases, longest ", full_prefix.size()) != std::string_view::npos &&
        text.substr(full_prefix.size(), 5) != "line ")
      continue;  // the summary line
    if (text.substr(0, prefix.size()) != prefix) {
      // Not about the file (a warning of sendmail's own): shown once.
      bool seen = false;
      for (const std::string& m : verdict.notes) seen |= m == text;
      if (!seen) verdict.notes.emplace_back(text);
      continue;
    }
    text.remove_prefix(prefix.size());
    std::size_t i = 0;
    std::uint32_t number = 0;
    if (text.substr(0, 5) == "line ") {
      i = 5;
      while (i < text.size() && text[i] >= '0' && text[i] <= '9')
        number = number * 10 + static_cast<std::uint32_t>(text[i++] - '0');
    }
    if (i <= 5 || text.substr(i, 2) != ": ") {
      // About the file but no line: kept as said.
      verdict.messages.emplace_back(text);
      continue;
    }
    std::string_view rest = text.substr(i + 2);
    if (number <= physical) {
      verdict.messages.push_back("line " + std::to_string(first_line + number - 1) + ": " + std::string(rest));
    } else if (verdict.shown.empty()) {
      const std::size_t d = rest.rfind(kDuplicate);
      if (d != std::string_view::npos) verdict.shown = rest.substr(0, d);
    }
  }

  std::vector<std::pair<std::string, std::string>> entries;
  try {
    entries = ReadHashMap(temp.path() + ".db");
  } catch (const pnl_err::Error&) {
    std::string said;
    for (const std::string& m : verdict.messages) said += "\n" + m;
    throw pnl_err::Error(pnl_err::Kind::kAliasDb, where,
                         "sendmail (" + sendmail_ + ") built no map for it, exit status " +
                             std::to_string(verdict.exit_code) + said);
  }
  for (const auto& [key, value] : entries) {
    std::string_view k = StripNul(key);
    std::string_view v = StripNul(value);
    if (k == "@" && v == "@") continue;  // the end marker
    verdict.stored = true;
    verdict.key = k;
    verdict.value = v;
  }
  return verdict;
}

int SendmailOracle::RebuildWhole(const std::string& alias_file, std::string& output) const {
  Child run(Command(alias_file), false, scratch_dir_);
  const int status = run.Wait();
  output = run.output();
  return status;
}

}  // namespace zel_aliasdb
