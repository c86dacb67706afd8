// A sendmail back-end on a sandbox: the four files and a panel database in
// a scratch folder, the real makemap and newaliases after each save, and
// helpers that make host rows the way the panel does.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "counting_runner.h"
#include "email/fail.h"
#include "email/file_views.h"
#include "email/tables.h"
#include "email_sendmail/sendmail_interface.h"
#include "sandbox.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/db/cache.h"
#include "zelapi/db/query.h"
#include "zelapi/mail/email.h"
#include "zelapi/mail/tables.h"
#include "zelapi/str.h"

namespace zeltest {

inline std::string CurrentTestName() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->name();
}

class MailTest : public ::testing::Test {
 protected:
  using DomainRow = std::shared_ptr<zel_db::EmailDomainTable>;
  using EmailRow = std::shared_ptr<zel_db::EmailTable>;

  void SetUp() override {
    pnl_cf::Clear();
    pnl_cf::SetPath("sendmail-virtusertable", Vut());
    pnl_cf::SetPath("sendmail-localhostnames", Lhn());
    pnl_cf::SetPath("sendmail-accessdb", Access());
    pnl_cf::SetPath("sendmail-aliases", AliasesFile());
    pnl_cf::SetPath("sendmail-newaliases", "/usr/sbin/sendmail -bi -oA" + AliasesFile());
    pnl_cf::SetPath("sendmail-restart", "true");
    pnl_cf::SetPath("zelpnl-responder", "/usr/lib/zelpnl/zelpnl-responder");
    zel_db::OpenCache(box_.Path("panel.db"));
    zel_db::GetCache()->BeginRequest();
    mta_ = std::make_unique<zelpriv_email_sendmail::SendmailInterface>();
  }

  void TearDown() override {
    str::SetRandomSource(nullptr);
    zel_db::GetCache()->EndRequest();
    zel_db::CloseCache();
    zel_api::DiscardDeferred();
  }

  // Makes every pass tag drawn from now on the given value (a cache pass
  // draws its tag with str::Random<int>()).
  static void PinPassTag(int tag) {
    pinned_tag_ = tag;
    str::SetRandomSource([](size_t n) {
      std::string bytes(n, '\0');
      std::memcpy(bytes.data(), &pinned_tag_, std::min(n, sizeof pinned_tag_));
      return bytes;
    });
  }

  // Ends the current request (its file stamps are remembered) and opens the next.
  void NextRequest() {
    zel_db::GetCache()->EndRequest();
    zel_db::GetCache()->BeginRequest();
  }

  std::string Vut() const { return box_.Path("virtusertable"); }
  std::string Lhn() const { return box_.Path("local-host-names"); }
  std::string Access() const { return box_.Path("access"); }
  std::string AliasesFile() const { return box_.Path("aliases"); }

  std::string Read(const std::string& path) const {
    return box_.Exists(path.substr(box_.dir().size() + 1)) ? ReadFile(path) : std::string();
  }

  pnl_db::Cache* Db() const { return zel_db::GetCache(); }

  // A panel user and one of its web domains (the panel's "domain" table).
  std::string AddWebDomain(const std::string& name, const std::string& user = "admin") {
    Db()->Query("INSERT OR IGNORE INTO users(name) VALUES(" + Db()->EscapeValue(user) + ")");
    Db()->Query("INSERT INTO domain(name, users) SELECT " + Db()->EscapeValue(name) +
                ", id FROM users WHERE name = " + Db()->EscapeValue(user));
    return Db()->Query("SELECT id FROM users WHERE name = " + Db()->EscapeValue(user)).Str();
  }

  // A mail domain row, posted, positioned on itself.
  DomainRow NewDomain(const std::string& name, const std::string& action = "error",
                      const std::string& redirect = "") {
    DomainRow d = Db()->Get<zel_db::EmailDomainTable>();
    d->New();
    d->name = name;
    d->def_action = action;
    d->redirect = redirect;
    d->Post();
    return d;
  }

  // A mailbox row of a domain, posted, positioned on itself.
  EmailRow NewMailbox(const DomainRow& domain, const std::string& local,
                      bool forward_only = false) {
    EmailRow e = Db()->Get<zel_db::EmailTable>();
    e->New();
    e->name = local;
    e->domain.SetText(domain->id.Str());
    e->forward_only = forward_only;
    e->Post();
    return e;
  }

  // A mail domain and a mailbox created through the back-end.
  EmailRow CreateMailbox(DomainRow& domain, const std::string& local, bool forward_only = false) {
    EmailRow e = NewMailbox(domain, local, forward_only);
    mta_->CreateEmail(e);
    return e;
  }

  void AddAliasRow(const EmailRow& e, const std::string& name) {
    Db()->Query("INSERT INTO email_alias(email, name) VALUES(" + e->id.Str() + ", " +
                Db()->EscapeValue(name) + ")");
  }
  void AddForwardRow(const EmailRow& e, const std::string& name) {
    Db()->Query("INSERT INTO email_forward(email, name) VALUES(" + e->id.Str() + ", " +
                Db()->EscapeValue(name) + ")");
  }

  // Rows of a one-column query, joined by "|" in query order.
  std::string Column(const std::string& sql) {
    std::string out;
    for (pnl_db::Query q = Db()->Query(sql); !q.Eof(); q.Next()) {
      if (!out.empty()) out += "|";
      out += q.Str();
    }
    return out;
  }

  std::string Responder(const std::string& address) const {
    return "\"|/usr/lib/zelpnl/zelpnl-responder " + address + "\"";
  }

  Sandbox box_{CurrentTestName()};
  std::unique_ptr<zelpriv_email_sendmail::SendmailInterface> mta_;
  static inline int pinned_tag_ = 0;
};

}  // namespace zeltest
