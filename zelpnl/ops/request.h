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

namespace zelpnl {

class FileChange;

struct Request {
  pnl_db::Cache& db;
  email::MtaInterface& mta;
  FileChange& files;
};

}  // namespace zelpnl
