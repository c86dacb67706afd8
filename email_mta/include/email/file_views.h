// The record views of the sendmail-family files. Each view reads the lines it
// recognises (Parse) and knows the text of a new line (NewRecordTemplate);
// finding, walking, posting and deleting records come from the engine. The
// first field of every view is its key. A view object is one cursor's state
// and belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "zelapi/conf/conf.h"

namespace email {

// local-host-names: one host or domain name a line ("name\n").
class HostNames : public HeadDataSet {
 public:
  HostNames();
  bool Parse(Cf& cf) override;
  std::string NewRecordTemplate() override;

  dd::Field name{this, "name"};
};

// Virtual user table, catch-all lines: "@domain<TAB>target\n".
class VirtualDomains : public HeadDataSet {
 public:
  VirtualDomains();
  bool Parse(Cf& cf) override;
  std::string NewRecordTemplate() override;

  dd::Field name{this, "name"};      // the domain, without "@"
  dd::Field target{this, "target"};  // the rest of the line
};

// Virtual user table, address lines: "local@domain<TAB>target words\n".
class VirtualEmails : public HeadDataSet {
 public:
  VirtualEmails();
  bool Parse(Cf& cf) override;
  std::string NewRecordTemplate() override;

  dd::Field name{this, "name"};                 // the full address
  dd::ArrayField target{this, "target,", ' '};  // the target's words
};

// Aliases file: "name:<TAB>target, target\n". An entry is its first line
// and the lines that continue it, as sendmail reads them (a line starting
// with a blank or a tab continues the one above, a backslash before a line
// end takes in the next line): alias holds the targets of all of them, and
// a changed entry is written anew as one line (see the table's rules).
class Aliases : public HeadDataSet {
 public:
  Aliases();
  bool Parse(Cf& cf) override;
  std::string NewRecordTemplate() override;

  // The entry as this view writes it, without its line end.
  static std::string Text(const std::string& name, const std::vector<std::string>& targets);

  dd::Field name{this, "name"};
  dd::ArrayField alias{this, "alias", ','};
};

// The longest aliases entry sendmail reads, in bytes, its lines joined
// without their line ends: it reads an entry into a buffer of 8192 bytes,
// which also holds the line end and the terminating NUL. A longer entry is
// left out of the alias database ("alias line too long"), and every rebuild
// after it fails.
inline constexpr std::size_t kLongestAliasesEntry = 8190;

// Refuses an aliases entry that sendmail would not read: throws
// pnl_err::Error(pnl_err::Kind::kLimit, "aliases entry \"NAME\"", ...) naming its size
// and the limit when name with targets, written as Aliases writes it, is
// longer than kLongestAliasesEntry. forwards: how many of the targets are
// the mailbox's forwards (said in the message, with the advice to remove
// some, when there are any).
void CheckAliasesEntry(const std::string& name, const std::vector<std::string>& targets,
                       std::size_t forwards);

// Access map: "source<TAB>target\n".
class SourceTarget : public HeadDataSet {
 public:
  SourceTarget();
  bool Parse(Cf& cf) override;
  std::string NewRecordTemplate() override;

  dd::Field source{this, "source"};
  dd::Field target{this, "target"};
};

}  // namespace email
