// The module object of email_sendmail, "email_mta". Constructing it decides
// whether this panel runs sendmail (host parameter "MTA" exactly "sendmail");
// only then it installs the sendmail path defaults, builds the back-end, makes
// sure the aliases file has the "devnull" alias and hands the back-end to the
// host with email::RegisterMta. Any other value (or none) leaves the module
// inert. The module object holds nothing; the host owns the back-end.
#pragma once

#include "zelapi/api.h"

namespace zelpriv_email_sendmail {

class __email_mtaModule : public zel_api::Module {
 public:
  __email_mtaModule();
};

// The registration of the module's factory under "email_interface".
extern zel_api::BaseRegisterModule __email_mtaFabric;

}  // namespace zelpriv_email_sendmail
