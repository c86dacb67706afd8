#include "mail_disposal.h"

namespace zelpnl {

void AddMailDisposalOption(CLI::App* cmd, std::string* word) {
  *word = "archive";
  cmd->add_option("--mail", *word,
                  "What becomes of the stored mail: archive (moved to the mail archive, the "
                  "default) or delete")
      ->check(CLI::IsMember({"archive", "delete"}))
      ->option_text("archive|delete");
}

mailstore::Disposal MailDisposal(const std::string& word) {
  return word == "delete" ? mailstore::Disposal::kDelete : mailstore::Disposal::kArchive;
}

}  // namespace zelpnl
