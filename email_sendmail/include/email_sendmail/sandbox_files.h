// zelpriv_email_sendmail::SandboxFiles: sendmail's part of a self-contained
// set-up in one folder: the four files the panel keeps and their maps, and,
// where sendmail-cf and m4 are installed, a sendmail.mc and sendmail.cf
// that read only the folder's files and never ask DNS, so that sendmail
// itself can be asked where mail would go. The module registers it under
// "sendmail". Stateless.
#pragma once

#include <string>
#include <vector>

#include "email/sandbox.h"

namespace zelpriv_email_sendmail {

class SandboxFiles final : public email::SandboxWriter {
 public:
  std::vector<std::string> Files() const override;
  email::SandboxPart Write(const email::SandboxRequest& request,
                           const std::string& answers_dir) const override;
};

// The sandbox's sendmail.mc.
std::string SandboxMailConfig(const email::SandboxRequest& request);

}  // namespace zelpriv_email_sendmail
