#include "mailstore/maildirs.h"

#include <sys/stat.h>

#include <ctime>
#include <filesystem>

#include "zelapi/err.h"

namespace fs = std::filesystem;

namespace mailstore {

namespace {

// A name that stays one component below the root.
const std::string& Component(const std::string& name) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos)
    throw pnl_err::Error(pnl_err::Kind::kRow, "mail folder name \"" + name + "\"",
                         "cannot name a folder below the mail root");
  return name;
}

std::string Stamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

}  // namespace

Maildirs::Maildirs(std::string root, std::string archive)
    : root_(std::move(root)), archive_(std::move(archive)) {}

std::string Maildirs::Home(const std::string& domain, const std::string& local) const {
  return root_ + "/" + Component(domain) + "/" + Component(local);
}

std::uint64_t Maildirs::Usage(const std::string& domain, const std::string& local) const {
  if (!Kept()) return 0;
  std::uint64_t bytes = 0;
  std::error_code ec;
  fs::recursive_directory_iterator it(Home(domain, local), ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    // Messages only: the files of a folder's cur, new and tmp, not the mail
    // store's indexes beside them.
    const std::string parent = it->path().parent_path().filename().string();
    if (parent != "cur" && parent != "new" && parent != "tmp") continue;
    std::error_code size_ec;
    if (it->is_regular_file(size_ec)) {
      const std::uintmax_t size = it->file_size(size_ec);
      if (!size_ec) bytes += size;
    }
  }
  return bytes;
}

std::string Maildirs::DisposePath(const std::string& from, const std::string& archive_name,
                                  Disposal how) const {
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(from, ec))) return "";
  if (how == Disposal::kDelete || archive_.empty()) {
    fs::remove_all(from, ec);
    if (ec)
      throw pnl_err::Error(pnl_err::Kind::kFile, from, "cannot remove the mail: " + ec.message());
    return "";
  }
  const fs::path target_folder = fs::path(archive_name).parent_path();
  fs::create_directories(target_folder, ec);
  if (ec)
    throw pnl_err::Error(pnl_err::Kind::kFile, target_folder.string(),
                         "cannot make the archive folder: " + ec.message());
  ::chmod(archive_.c_str(), 0700);
  std::string target = archive_name + "." + Stamp();
  for (int n = 2; fs::exists(fs::symlink_status(target, ec)); ++n)
    target = archive_name + "." + Stamp() + "-" + std::to_string(n);
  fs::rename(from, target, ec);
  if (ec)
    throw pnl_err::Error(pnl_err::Kind::kFile, from,
                         "cannot move the mail to " + target + ": " + ec.message());
  return target;
}

std::string Maildirs::Dispose(const std::string& domain, const std::string& local,
                              Disposal how) const {
  if (!Kept()) return "";
  return DisposePath(Home(domain, local), archive_ + "/" + Component(domain) + "/" + local, how);
}

std::string Maildirs::DisposeDomain(const std::string& domain, Disposal how) const {
  if (!Kept()) return "";
  return DisposePath(root_ + "/" + Component(domain), archive_ + "/" + domain, how);
}

}  // namespace mailstore
