#include "row_checks.h"

#include <string>

#include "validation.h"
#include "zelapi/db.h"
#include "zelapi/err.h"

namespace zelpnl {

namespace {

[[noreturn]] void Refuse(const std::string& what, const std::string& value, const std::string& row,
                         const std::string& why) {
  throw pnl_err::Error("row", what + " " + Quote(value) + " of " + row,
                       why + " (a row of the panel database the command would write into "
                             "sendmail's files; correct or remove it first)");
}

// Runs check(value); a refusal becomes the row's error.
template <class Check>
void Checked(const std::string& what, const std::string& value, const std::string& row,
             Check check) {
  try {
    check(value);
  } catch (const Invalid& e) {
    Refuse(what, value, row, e.detail());
  }
}

void CheckDomain(const std::string& name, const std::string& action, const std::string& redirect) {
  const std::string row = "mail domain " + Quote(name);
  Checked("name", name, row, [](const std::string& v) {
    if (DomainName(v) != v) throw Invalid("domain name", v, "is not in its canonical form");
  });
  Checked("default action", action, row,
          [&](const std::string& v) { Redirect(v, redirect, name); });
}

// The mailboxes (name and domain) and their aliases and forwards of the rows
// the where clause selects (over email e and email_domain d).
void CheckMailboxes(pnl_db::Cache& db, const std::string& where, long long key,
                    bool allow_programs) {
  const std::string from = " FROM email e JOIN email_domain d ON d.id = e.domain ";
  for (pnl_db::Query q = db.Query("SELECT e.name, d.name" + from + where, {key}); !q.Eof();
       q.Next()) {
    const std::string local = q.Str(0);
    Checked("local part", local, "mailbox " + Quote(local + "@" + q.Str(1)),
            [](const std::string& v) {
              if (LocalPart(v) != v) throw Invalid("local part", v, "is not in lower case");
            });
  }
  // The aliases and the forwards: each row's value, with its mailbox.
  const auto each = [&](const char* table, const std::string& what, auto check) {
    for (pnl_db::Query q = db.Query(std::string("SELECT r.name, e.name, d.name FROM ") + table +
                                        " r JOIN email e ON e.id = r.email "
                                        "JOIN email_domain d ON d.id = e.domain " + where,
                                    {key});
         !q.Eof(); q.Next())
      Checked(what, q.Str(0), "mailbox " + Quote(q.Str(1) + "@" + q.Str(2)), check);
  };
  each("email_alias", "alias", [](const std::string& v) {
    if (LocalPart(v, "alias") != v) throw Invalid("alias", v, "is not in lower case");
  });
  each("email_forward", "forward target", [&](const std::string& v) {
    if (ForwardTarget(v, allow_programs) != v)
      throw Invalid("forward target", v, "is not in its canonical form");
  });
}

}  // namespace

void CheckMailboxRows(pnl_db::Cache& db, int64_t mailbox_id, bool allow_programs) {
  const long long id = mailbox_id;
  pnl_db::Query domain = db.Query(
      "SELECT d.name, d.def_action, d.redirect FROM email e JOIN email_domain d ON d.id = "
      "e.domain WHERE e.id = ?",
      {id});
  if (domain.Eof()) return;
  Checked("name", domain.Str(0), "mail domain " + Quote(domain.Str(0)),
          [](const std::string& v) {
            if (DomainName(v) != v) throw Invalid("domain name", v, "is not in its canonical form");
          });
  CheckMailboxes(db, "WHERE e.id = ?", id, allow_programs);
}

void CheckDomainRows(pnl_db::Cache& db, int64_t domain_id, bool allow_programs) {
  const long long id = domain_id;
  pnl_db::Query domain =
      db.Query("SELECT name, def_action, redirect FROM email_domain WHERE id = ?", {id});
  if (domain.Eof()) return;
  CheckDomain(domain.Str(0), domain.Str(1), domain.Str(2));
  CheckMailboxes(db, "WHERE e.domain = ?", id, allow_programs);
}

}  // namespace zelpnl
