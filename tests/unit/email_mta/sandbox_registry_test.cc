// email::SandboxRegistration: a back-end's set-up writer is found under its
// MTA name while its registration lives, and not after.
#include "email/sandbox.h"

#include <gtest/gtest.h>

#include "email/mta_interface.h"
#include "zelapi/err.h"

namespace {

class NamedWriter final : public email::SandboxWriter {
 public:
  std::vector<std::string> Files() const override { return {"one"}; }
  email::SandboxPart Write(const email::SandboxRequest& request,
                           const std::string& answers_dir) const override {
    email::SandboxPart part;
    part.params = "dir = " + request.dir + "\n";
    part.answer_command = "queue " + answers_dir;
    return part;
  }
};

}  // namespace

TEST(SandboxRegistryTest, AWriterIsFoundUnderItsNameWhileRegistered) {
  const NamedWriter writer;
  EXPECT_EQ(email::FindSandboxWriter("test-mta"), nullptr);
  {
    email::SandboxRegistration registration("test-mta", writer);
    ASSERT_EQ(email::FindSandboxWriter("test-mta"), &writer);
    EXPECT_EQ(email::FindSandboxWriter("other"), nullptr);
    email::SandboxRequest request;
    request.dir = "/srv/sb";
    const email::SandboxPart part =
        email::FindSandboxWriter("test-mta")->Write(request, "/srv/sb/answers");
    EXPECT_EQ(part.params, "dir = /srv/sb\n");
    EXPECT_EQ(part.answer_command, "queue /srv/sb/answers");
  }
  EXPECT_EQ(email::FindSandboxWriter("test-mta"), nullptr);
}

namespace {

// A back-end that implements only the required slots.
class BareMta : public email::MtaInterface {
 public:
  void CacheEmails() override {}
  void CreateEmail(EmailPtr) override {}
  void DeleteEmail(EmailPtr) override {}
  void SuspendEmail(EmailPtr) override {}
  void ResumeEmail(EmailPtr) override {}
  void UpdateEmail(EmailPtr) override {}
  void CacheDomains() override {}
  void CreateDomain(DomainPtr) override {}
  void DeleteDomain(DomainPtr) override {}
  void SuspendDomain(DomainPtr) override {}
  void ResumeDomain(DomainPtr) override {}
  void UpdateDomain(DomainPtr) override {}
  void CacheAliases(EmailPtr) override {}
  void SetAliases(EmailPtr, const std::list<std::string>&) override {}
  void GetResponder(ResponderPtr) override {}
  void SetResponder(ResponderPtr) override {}
  void AddToWhitelist(const std::string&) override {}
  void DeleteFromWhitelist(const std::string&) override {}
  void CacheWhitelist() override {}
  void AddToBlacklist(const std::string&) override {}
  void DeleteFromBlacklist(const std::string&) override {}
  void CacheBlacklist() override {}
  void SetSSLCertForDomain(const std::string&, const std::string&, const std::string&) override {}
};

}  // namespace

TEST(MtaInterfaceTest, ABackEndThatCannotBeAskedSaysSo) {
  BareMta mta;
  try {
    mta.CheckAddress("someone@example.com");
    FAIL() << "no error";
  } catch (const pnl_err::Error& e) {
    EXPECT_EQ(e.kind(), pnl_err::Kind::kNotSupported);
    EXPECT_EQ(e.object(), "someone@example.com");
  }
}
