// Loading email_sendmail.so through the platform's loader, as the panel core
// does, with the "MTA" parameter set, set to other values, and unset.
#include <gtest/gtest.h>

#include "counting_runner.h"
#include "email/mta_interface.h"
#include "email/sendmail_like.h"
#include "sandbox.h"
#include "zelapi/api.h"
#include "zelapi/cf.h"
#include "zelapi/warn.h"
#include "zelapi/mta_registry.h"

using zeltest::CountingRunner;
using zeltest::Sandbox;

namespace {

const char kModule[] = ZEL_LIB_DIR "/modules/email_sendmail.so";

std::string TestName() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->name();
}

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    pnl_cf::Clear();
    apistat::Clear();
    email::ForgetMta();
    SetSandboxPaths();
  }
  // Every file of the sandbox, so that the module never reaches /etc/mail.
  void SetSandboxPaths() {
    pnl_cf::SetPath("sendmail-aliases", box_.Path("aliases"));
    pnl_cf::SetPath("sendmail-virtusertable", box_.Path("virtusertable"));
    pnl_cf::SetPath("sendmail-localhostnames", box_.Path("local-host-names"));
    pnl_cf::SetPath("sendmail-accessdb", box_.Path("access"));
    pnl_cf::SetPath("sendmail-newaliases", "/usr/sbin/sendmail -bi -oA" + box_.Path("aliases"));
  }
  // The host owns the back-end; the module is still loaded here.
  void TearDown() override {
    delete email::GetMta();
    email::ForgetMta();
  }

  // Loads the module and constructs its registered module objects.
  void Construct() {
    loader_.Load(kModule);
    loader_.ConstructAll();
  }

  Sandbox box_{TestName()};
  zel_api::ModuleLoader loader_;
};

void ExpectInert(const Sandbox& box) {
  EXPECT_FALSE(pnl_cf::HasPath("sendmail-mc"));
  EXPECT_FALSE(pnl_cf::HasPath("sendmail-restart"));
  EXPECT_EQ(email::GetMta(), nullptr);
  EXPECT_EQ(apistat::InterfaceImplementation("mail"), "");
  EXPECT_FALSE(box.Exists("aliases"));
}

}  // namespace

TEST_F(ModuleTest, LoadingRegistersTheFactoryUnderEmailInterface) {
  loader_.Load(kModule);
  bool found = false;
  for (const auto& r : zel_api::RegisteredModules()) found |= r.name == "email_interface";
  EXPECT_TRUE(found);
  EXPECT_EQ(email::GetMta(), nullptr) << "loading alone constructs nothing";
}

TEST_F(ModuleTest, ModuleObjectIsNamedEmailMta) {
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  ASSERT_EQ(loader_.Modules().size(), 1u);
  EXPECT_EQ(loader_.Modules()[0]->Name(), "email_mta");
}

TEST_F(ModuleTest, UnsetMtaLeavesTheModuleInert) {
  Construct();
  ASSERT_EQ(loader_.Modules().size(), 1u);
  ExpectInert(box_);
}

TEST_F(ModuleTest, EmptyMtaLeavesTheModuleInert) {
  pnl_cf::SetParam("MTA", "");
  Construct();
  ExpectInert(box_);
}

TEST_F(ModuleTest, OtherMtaLeavesTheModuleInert) {
  pnl_cf::SetParam("MTA", "other-mta");
  Construct();
  ExpectInert(box_);
}

TEST_F(ModuleTest, MtaComparisonIsExact) {
  for (const char* value : {"Sendmail", " sendmail", "sendmail ", "SENDMAIL"}) {
    SCOPED_TRACE(value);
    pnl_cf::SetParam("MTA", value);
    zel_api::ModuleLoader loader;
    loader.Load(kModule);
    loader.ConstructAll();
    ExpectInert(box_);
  }
}

TEST_F(ModuleTest, SendmailInstallsPathDefaultsAndRegistersTheBackEnd) {
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  EXPECT_EQ(pnl_cf::GetPath("sendmail-mc"), "/etc/mail/sendmail.mc");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-restart"), "make -C /etc/mail restart");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-newaliases"),
            "/usr/sbin/sendmail -bi -oA" + box_.Path("aliases"));
  EXPECT_EQ(apistat::InterfaceImplementation("mail"), "sendmail");
  email::MtaInterface* mta = email::GetMta();
  ASSERT_NE(mta, nullptr);
  EXPECT_FALSE(mta->CanBindToIp());
  auto* backend = dynamic_cast<email::SendmailLikeInterface*>(mta);
  ASSERT_NE(backend, nullptr);
  EXPECT_EQ(backend->aliases_path(), box_.Path("aliases"));
  EXPECT_EQ(backend->virtusertable_path(), box_.Path("virtusertable"));
  EXPECT_EQ(backend->localhostnames_path(), box_.Path("local-host-names"));
  EXPECT_EQ(backend->accessdb_path(), box_.Path("access"));
  EXPECT_EQ(backend->nouser_target(), "error:nouser No such user here");
  EXPECT_EQ(backend->disabled_target(), "error:nouser Account temporary disabled");
}

TEST_F(ModuleTest, DefaultsDoNotOverrideConfiguredPaths) {
  pnl_cf::SetPath("sendmail-restart", "true configured");
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  EXPECT_EQ(pnl_cf::GetPath("sendmail-restart"), "true configured");
}

TEST_F(ModuleTest, MissingDevnullAliasIsAppendedOnceAndNewaliasesRunsOnce) {
  box_.Write("aliases", "# aliases\nroot:\tadmin\\@a.example\n");
  pnl_cf::SetParam("MTA", "sendmail");
  CountingRunner runner;
  Construct();
  EXPECT_EQ(box_.Read("aliases"), "# aliases\nroot:\tadmin\\@a.example\ndevnull:\t\"/dev/null\"\n");
  EXPECT_EQ(runner.CountContaining("sendmail -bi"), 1);
  EXPECT_TRUE(box_.Exists("aliases.db"));
}

TEST_F(ModuleTest, ExistingDevnullAliasIsLeftAloneAndNothingRuns) {
  const std::string text = "devnull: /var/spool/discard\n";
  box_.Write("aliases", text);
  pnl_cf::SetParam("MTA", "sendmail");
  CountingRunner runner;
  Construct();
  EXPECT_EQ(box_.Read("aliases"), text);
  EXPECT_TRUE(runner.commands().empty());
}

TEST_F(ModuleTest, SecondConstructionFindsDevnullAndPostsNothing) {
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  const std::string after_first = box_.Read("aliases");
  email::MtaInterface* first = email::GetMta();
  // The defaults the first construction installed are forgotten: the second
  // must install them again.
  pnl_cf::Clear();
  SetSandboxPaths();
  pnl_cf::SetParam("MTA", "sendmail");
  ASSERT_FALSE(pnl_cf::HasPath("sendmail-mc"));
  CountingRunner runner;
  zel_api::Module* again = zel_api::RegisteredModules().front().factory();
  delete again;
  EXPECT_NE(email::GetMta(), first) << "a second back-end is registered";
  delete first;
  EXPECT_EQ(box_.Read("aliases"), after_first);
  EXPECT_TRUE(runner.commands().empty());
  EXPECT_EQ(pnl_cf::GetPath("sendmail-mc"), "/etc/mail/sendmail.mc");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-restart"), "make -C /etc/mail restart");
}

TEST_F(ModuleTest, FailingNewaliasesKeepsTheBackEndUnregistered) {
  // The rebuild refuses the very entry the start-up writes (line 1).
  box_.Write("aliases", "");
  pnl_cf::SetPath("sendmail-newaliases",
                  "echo '" + box_.Path("aliases") + ": line 1: refused' >&2; exit 1");
  pnl_cf::SetParam("MTA", "sendmail");
  loader_.Load(kModule);
  try {
    loader_.ConstructAll();
    FAIL() << "the construction succeeded";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kEmail);
    EXPECT_EQ(e.object(), "newaliases");
    EXPECT_NE(e.detail().find("line 1: refused"), std::string::npos) << e.detail();
    EXPECT_TRUE(e.reported());
  }
  EXPECT_EQ(email::GetMta(), nullptr);
  EXPECT_EQ(box_.Read("aliases"), "devnull:\t\"/dev/null\"\n");
}

TEST_F(ModuleTest, ABadLineSomeoneElseWroteLeavesTheBackEndRegisteredWithAWarning) {
  box_.Write("aliases", "line without a colon\n");
  pnl_warn::Take();
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  EXPECT_NE(email::GetMta(), nullptr);
  EXPECT_EQ(box_.Read("aliases"), "line without a colon\ndevnull:\t\"/dev/null\"\n");
  const std::vector<std::string> warnings = pnl_warn::Take();
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("line 1: missing colon"), std::string::npos) << warnings[0];
}

TEST_F(ModuleTest, TheFilePathsDefaultToEtcMail) {
  // Only the aliases file is configured: the module writes to it at start.
  pnl_cf::Clear();
  pnl_cf::SetPath("sendmail-aliases", box_.Path("aliases"));
  pnl_cf::SetPath("sendmail-newaliases", "/usr/sbin/sendmail -bi -oA" + box_.Path("aliases"));
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  auto* backend = dynamic_cast<email::SendmailLikeInterface*>(email::GetMta());
  ASSERT_NE(backend, nullptr);
  EXPECT_EQ(backend->virtusertable_path(), "/etc/mail/virtusertable");
  EXPECT_EQ(backend->localhostnames_path(), "/etc/mail/local-host-names");
  EXPECT_EQ(backend->accessdb_path(), "/etc/mail/access");
  // With the configured paths gone, the defaults the module installed show.
  pnl_cf::LoadText("[params]\nMTA = sendmail\n", "test");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-aliases"), "/etc/mail/aliases");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-virtusertable"), "/etc/mail/virtusertable");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-localhostnames"), "/etc/mail/local-host-names");
  EXPECT_EQ(pnl_cf::GetPath("sendmail-accessdb"), "/etc/mail/access");
  EXPECT_FALSE(pnl_cf::HasPath("sendmail-newaliases"));
}

TEST_F(ModuleTest, DnsblSlotsHaveTheirDefaults) {
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  email::MtaInterface* mta = email::GetMta();
  ASSERT_NE(mta, nullptr);
  EXPECT_FALSE(mta->CanDNSBL());
  mta->AddDNSBL("bl.example");
  mta->DeleteDNSBL("bl.example");
  std::vector<std::string> lists = {"kept.example"};
  mta->GetDNSBLs(lists);
  EXPECT_EQ(lists, std::vector<std::string>{"kept.example"});
}

TEST_F(ModuleTest, SslCertificatesAreNotSupported) {
  pnl_cf::SetParam("MTA", "sendmail");
  Construct();
  try {
    email::GetMta()->SetSSLCertForDomain("a.example", "cert", "key");
    FAIL();
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kNotSupported);
  }
}
