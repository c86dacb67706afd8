#include "email/sendmail_like.h"

#include "zelapi/cf.h"

namespace email {

SendmailLikeInterface::SendmailLikeInterface(const std::string& mta,
                                             const std::string& nouser_target,
                                             const std::string& disabled_target)
    : virtusertable_path_(pnl_cf::GetPath(mta + "-virtusertable")),
      localhostnames_path_(pnl_cf::GetPath(mta + "-localhostnames")),
      accessdb_path_(pnl_cf::GetPath(mta + "-accessdb")),
      aliases_path_(pnl_cf::GetPath(mta + "-aliases")),
      nouser_target_(nouser_target),
      disabled_target_(disabled_target) {}

SendmailLikeInterface::~SendmailLikeInterface() = default;

}  // namespace email
