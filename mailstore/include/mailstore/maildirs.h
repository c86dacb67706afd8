// mailstore::Maildirs: the panel's mailboxes' mail on disk, one home per
// mailbox at ROOT/DOMAIN/LOCAL (its Maildir inside, as the mail store
// makes it), and what becomes of it when a mailbox or a domain goes:
// moved to ARCHIVE/DOMAIN/LOCAL.YYYYMMDDTHHMMSSZ, or removed. A re-added
// address therefore always starts empty.
//
// Names come from the panel's checked rows; a name that could leave the
// root ("", ".", "..", a "/") is refused all the same. A set-up without a
// mail root keeps no mail here, and every operation does nothing. Not
// thread-safe; one per request.
#pragma once

#include <cstdint>
#include <string>

namespace mailstore {

enum class Disposal { kArchive, kDelete };

class Maildirs {
 public:
  // root: the mail root ("" for none); archive: where Archive moves mail.
  Maildirs(std::string root, std::string archive);

  bool Kept() const { return !root_.empty(); }
  std::string Home(const std::string& domain, const std::string& local) const;

  // The bytes the mailbox's messages take (the files in the cur, new and
  // tmp folders below its home; not the mail store's indexes), 0 when it
  // has none. Never throws: a file that vanishes counts nothing.
  std::uint64_t Usage(const std::string& domain, const std::string& local) const;

  // The mailbox's (or the whole domain's) mail archived or removed; returns
  // where it went ("" when removed, or when there was none). Throws
  // pnl_err::Error(kFile) naming the folder that could not be moved or
  // removed.
  std::string Dispose(const std::string& domain, const std::string& local, Disposal how) const;
  std::string DisposeDomain(const std::string& domain, Disposal how) const;

 private:
  std::string DisposePath(const std::string& from, const std::string& archive_name,
                          Disposal how) const;

  std::string root_;
  std::string archive_;
};

}  // namespace mailstore
