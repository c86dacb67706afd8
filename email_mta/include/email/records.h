// The record views of the sendmail-family files. Each view reads the lines it
// recognises (Parse) and knows the text of a new line (NewRecordTemplate);
// finding, walking, posting and deleting records come from the engine. The
// first field of every view is its key. A view object is one cursor's state
// and belongs to one thread at a time.
#pragma once

#include <string>

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

// Aliases file: "name:<TAB>target, target\n".
class Aliases : public HeadDataSet {
 public:
  Aliases();
  bool Parse(Cf& cf) override;
  std::string NewRecordTemplate() override;

  dd::Field name{this, "name"};
  dd::ArrayField alias{this, "alias", ','};
};

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
