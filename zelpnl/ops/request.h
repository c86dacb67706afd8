// zelpnl request: what a panel operation works on. The panel database in
// its request transaction, the registered mail back-end and the request's
// changes of the mail files, all owned by the Host that opened them; a
// Request only lends them to one operation on the request's thread.
#pragma once

namespace pnl_db {
class Cache;
}
namespace email {
class MtaInterface;
}

namespace mailstore {
class Maildirs;
}

namespace zelpnl {

class FileChange;

struct Request {
  pnl_db::Cache& db;
  email::MtaInterface& mta;
  FileChange& files;
  const mailstore::Maildirs& mail;  // the mailboxes' mail on disk
};

}  // namespace zelpnl
