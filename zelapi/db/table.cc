// pnl_db::CustomTable: positioning, walking, posting and deleting rows of one
// table, and the rows a cursor remembers within a request.
//
// A cache pass runs a lookup and a post per line of a large file, so the SQL
// texts are made once per cursor and kept, values are bound straight from
// the fields, and error texts are only built when something fails.
#include <cctype>
#include <utility>

#include "internal.h"
#include "zelapi/err.h"

namespace pnl_db {

namespace {

// A cursor remembers at most this many lookups; past it, it starts afresh.
constexpr size_t kMemoLimit = 4096;
// At most this many condition texts keep their SQL per cursor.
constexpr size_t kWhereLimit = 256;

bool IsIdentStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool IsIdentChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Recognises the simple conditions of the mail operations ("email = 5",
// "email=5", "tag != -1234"): a column, a comparison and an integer literal.
// Such a condition runs as one prepared statement with the number bound,
// whatever the number; any other condition runs as the text it is.
bool SplitSimpleCondition(const std::string& condition, std::string& column, std::string& op,
                          int64_t& number) {
  size_t i = 0;
  const size_t n = condition.size();
  auto blanks = [&] {
    while (i < n && (condition[i] == ' ' || condition[i] == '\t')) ++i;
  };
  blanks();
  if (i == n || !IsIdentStart(condition[i])) return false;
  const size_t start = i;
  while (i < n && IsIdentChar(condition[i])) ++i;
  column = condition.substr(start, i - start);
  blanks();
  static const char* const kOps[] = {"!=", "<>", "<=", ">=", "==", "=", "<", ">"};
  op.clear();
  for (const char* candidate : kOps) {
    if (condition.compare(i, std::char_traits<char>::length(candidate), candidate) == 0) {
      op = candidate;
      break;
    }
  }
  if (op.empty()) return false;
  i += op.size();
  blanks();
  const size_t number_start = i;
  if (i < n && condition[i] == '-') ++i;
  while (i < n && std::isdigit(static_cast<unsigned char>(condition[i]))) ++i;
  const std::string literal = condition.substr(number_start, i - number_start);
  blanks();
  if (i != n || literal.size() > 19) return false;
  return ParseInt(literal, number);
}

Value IntValue(int64_t number) {
  Value v;
  v.kind = Value::kInt;
  v.integer = number;
  return v;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

// The columns one post writes: the fields its mask picks, in field order.
// Inserts and updates both take their column list and their parameters from
// here, so the names in the SQL text and the values bound to its "?" cannot
// come out in different orders.
class PostColumns {
 public:
  PostColumns(const std::vector<Field*>& fields, uint64_t mask) : fields_(fields), mask_(mask) {}

  bool Empty() const { return mask_ == 0; }
  // The quoted column names joined by ", ", each followed by suffix: "" for
  // an insert's column list, " = ?" for an update's SET.
  std::string Names(const char* suffix) const {
    std::string names;
    for (size_t i = 0; i < fields_.size(); ++i) {
      if (!Picks(i)) continue;
      if (!names.empty()) names += ", ";
      names += Ident(fields_[i]->Column()) + suffix;
    }
    return names;
  }
  // One "?" per column, joined by ", ": an insert's VALUES.
  std::string Marks() const {
    std::string marks;
    for (size_t i = 0; i < fields_.size(); ++i) {
      if (!Picks(i)) continue;
      if (!marks.empty()) marks += ", ";
      marks += "?";
    }
    return marks;
  }
  // Binds the columns' values to the parameters from 1 on, without copying
  // them (the fields must not change before the statement has run). Returns
  // the number of the next parameter.
  int Bind(Statement& stmt) const {
    int index = 1;
    for (size_t i = 0; i < fields_.size(); ++i)
      if (Picks(i)) stmt.Bind(index++, fields_[i]->Raw());
    return index;
  }

 private:
  bool Picks(size_t i) const { return (mask_ & (uint64_t{1} << i)) != 0; }

  const std::vector<Field*>& fields_;
  uint64_t mask_;
};

}  // namespace

CustomTable::CustomTable(Cache& cache, std::string table)
    : cache_(&cache), table_(std::move(table)) {}

CustomTable::~CustomTable() { Finalize(); }

void CustomTable::Finalize() noexcept {
  // After its Cache closed the connection waits for these (sqlite3_close_v2).
  for (Prepared& p : field_sql_) sqlite3_finalize(p.stmt);
  for (auto* map : {&fields_sql_, &where_sql_, &next_sql_})
    for (auto& [key, p] : *map) sqlite3_finalize(p.stmt);
  for (auto* map : {&insert_sql_, &update_sql_})
    for (auto& [key, p] : *map) sqlite3_finalize(p.stmt);
  sqlite3_finalize(delete_sql_.stmt);
}

Cache& CustomTable::Live() const {
  if (cache_ == nullptr) Throw(table_, "database is closed");
  return *cache_;
}

Cache& CustomTable::GetCache() const { return Live(); }

void CustomTable::Fail(const std::string& detail) const { Throw(table_, detail); }

void CustomTable::Register(Field* field) {
  field->index_ = fields_.size();
  fields_.push_back(field);
}

void CustomTable::Prepare() {
  Cache& cache = Live();
  if (info_ != nullptr) return;
  TableInfo& info = cache.impl().Describe(table_, cache.File());
  if (fields_.size() > 64) Fail("more than 64 fields");
  key_ = nullptr;
  columns_.clear();
  std::string columns;
  for (Field* field : fields_) {
    const ColumnInfo* column = info.Find(field->Column());
    if (column == nullptr) Fail("no column " + Quoted(field->Column()));
    const std::string expected = field->SqlType();
    const bool integer = column->type.find("INT") != std::string::npos;
    if ((expected == "INTEGER") != integer)
      Fail("column " + Quoted(field->Column()) + " is " + column->type + ", the field wants " +
           expected);
    if (auto* key = dynamic_cast<KeyField*>(field)) {
      if (key_ != nullptr) Fail("more than one key field");
      if (!column->primary_key || column->type != "INTEGER")
        Fail("key column " + Quoted(field->Column()) + " is not the INTEGER PRIMARY KEY");
      key_ = key;
    }
    columns_.push_back(column);
    if (!columns.empty()) columns += ", ";
    columns += Ident(field->Column());
  }
  if (key_ == nullptr) Fail("the table class declares no key field");
  select_ = "SELECT " + columns + " FROM " + Ident(table_);
  field_sql_.assign(fields_.size(), Prepared());
  info_ = &info;
}

CustomTable::Prepared& CustomTable::FieldSql(size_t index) {
  Prepared& p = field_sql_[index];
  if (p.sql.empty()) {
    p.where = Ident(fields_[index]->Column()) + " = ?";
    p.sql = select_ + " WHERE " + p.where + " ORDER BY " + Ident(key_->Column()) + " LIMIT 1";
  }
  return p;
}

CustomTable::Prepared& CustomTable::WhereSql(const std::string& where) {
  auto it = where_sql_.find(where);
  if (it != where_sql_.end()) return it->second;
  if (where_sql_.size() >= kWhereLimit) {
    for (auto& [key, p] : where_sql_) sqlite3_finalize(p.stmt);
    where_sql_.clear();
  }
  Prepared p;
  p.where = where;
  p.sql = select_;
  if (!where.empty()) p.sql += " WHERE " + where;
  p.sql += " ORDER BY " + Ident(key_->Column()) + " LIMIT 1";
  return where_sql_.emplace(where, std::move(p)).first->second;
}

std::string CustomTable::KeyText() const { return key_ != nullptr ? key_->Str() : ""; }

void CustomTable::ClearFields() {
  for (Field* f : fields_) {
    f->value_ = Value();
    f->dirty_ = false;
  }
}

void CustomTable::Reset() {
  state_ = kEnd;
  filter_ = Filter();
  ClearFields();
}

void CustomTable::New() {
  Prepare();
  for (size_t i = 0; i < fields_.size(); ++i) {
    fields_[i]->value_ = columns_[i]->primary_key ? Value() : columns_[i]->default_value;
    fields_[i]->dirty_ = false;
  }
  state_ = kNew;
  filter_ = Filter();
}

bool CustomTable::MemoValid() {
  Cache& cache = Live();
  if (!cache.InRequest()) {
    memo_.clear();
    return false;
  }
  const uint64_t global = cache.impl().global_epoch;
  if (memo_table_epoch_ != info_->epoch || memo_global_epoch_ != global) {
    memo_.clear();
    memo_table_epoch_ = info_->epoch;
    memo_global_epoch_ = global;
  }
  return true;
}

bool CustomTable::PositionBy(Prepared& sql, Filter&& filter, bool remember) {
  std::string memo_key;
  if (remember && MemoValid()) {
    memo_key.reserve(filter.where.size() + 24);
    memo_key = filter.where;
    for (const Value& p : filter.params) {
      memo_key += '\x1f';
      if (p.kind == Value::kInt) {
        memo_key += 'I';
        memo_key += std::to_string(p.integer);
      } else {
        memo_key += p.kind == Value::kText ? 'T' : 'N';
        memo_key += p.text;
      }
    }
    auto it = memo_.find(memo_key);
    if (it != memo_.end()) {
      filter_ = std::move(filter);
      if (!it->second.found) {
        state_ = kEnd;
        ClearFields();
        return false;
      }
      for (size_t i = 0; i < fields_.size(); ++i) {
        fields_[i]->value_ = it->second.row[i];
        fields_[i]->dirty_ = false;
      }
      state_ = kRow;
      return true;
    }
  }

  const bool found = Fetch(sql, filter.params);
  filter_ = std::move(filter);
  if (!memo_key.empty()) {
    if (memo_.size() >= kMemoLimit) memo_.clear();
    Memo memo;
    memo.found = found;
    if (found) {
      memo.row.reserve(fields_.size());
      for (Field* f : fields_) memo.row.push_back(f->value_);
    }
    memo_.emplace(std::move(memo_key), std::move(memo));
  }
  return found;
}

bool CustomTable::Fetch(Prepared& sql, const std::vector<Value>& params) {
  Statement stmt(Live().impl(), sql.sql, &sql.stmt);
  for (size_t i = 0; i < params.size(); ++i) stmt.Bind(static_cast<int>(i) + 1, params[i]);
  if (stmt.Step() != SQLITE_ROW) {
    state_ = kEnd;
    ClearFields();
    return false;
  }
  for (size_t i = 0; i < fields_.size(); ++i) {
    stmt.Read(static_cast<int>(i), fields_[i]->value_);
    fields_[i]->dirty_ = false;
  }
  state_ = kRow;
  return true;
}

void CustomTable::Assert(const std::string& key) {
  Prepare();
  int64_t number = 0;
  if (!ParseInt(key, number)) Fail("no row with key \"" + key + "\"");
  const size_t index = key_->index_;
  bool found = false;
  try {
    Prepared& sql = FieldSql(index);
    found = PositionBy(sql, Filter{sql.where, {IntValue(number)}}, true);
  } catch (const SqlFailure& failure) {
    Fail("key " + key + ": " + failure.message);
  }
  if (!found) Fail("no row with key " + std::to_string(number));
}

bool CustomTable::DbFind(const std::string& condition) {
  Prepare();
  std::string column, op;
  int64_t number = 0;
  Filter filter;
  if (SplitSimpleCondition(condition, column, op, number) && info_->Find(column) != nullptr) {
    filter.where = Ident(column) + " " + op + " ?";
    filter.params.push_back(IntValue(number));
  } else {
    filter.where = "(" + condition + ")";
  }
  try {
    Prepared& sql = WhereSql(filter.where);
    return PositionBy(sql, std::move(filter), true);
  } catch (const SqlFailure& failure) {
    Fail("condition \"" + condition + "\": " + failure.message);
  }
}

void CustomTable::DbDelete(const std::string& condition) {
  Prepare();
  const std::string what = "delete where \"" + condition + "\"";
  bool blank = true;
  for (char c : condition)
    if (!std::isspace(static_cast<unsigned char>(c))) blank = false;
  if (blank) Fail(what + ": refused, the condition is empty");
  std::string column, op;
  int64_t number = 0;
  Cache::Impl& impl = Live().impl();
  ++impl.global_epoch;  // deletes may cascade into other tables
  Named(table_, what, [&] {
    if (SplitSimpleCondition(condition, column, op, number) && info_->Find(column) != nullptr) {
      const std::string sql =
          "DELETE FROM " + Ident(table_) + " WHERE " + Ident(column) + " " + op + " ?";
      Statement stmt(impl, sql);
      const Value bound = IntValue(number);
      stmt.Bind(1, bound);
      stmt.Step();
    } else {
      const std::string sql = "DELETE FROM " + Ident(table_) + " WHERE (" + condition + ")";
      Statement stmt(impl, sql);
      stmt.Step();
    }
  });
  ++impl.global_epoch;
}

void CustomTable::Delete() {
  Prepare();
  if (state_ == kEnd) Fail("delete: no current row");
  if (state_ == kNew) Fail("delete: the new row is not posted");
  Cache::Impl& impl = Live().impl();
  ++impl.global_epoch;
  try {
    if (delete_sql_.sql.empty())
      delete_sql_.sql =
          "DELETE FROM " + Ident(table_) + " WHERE " + Ident(key_->Column()) + " = ?";
    Statement stmt(impl, delete_sql_.sql, &delete_sql_.stmt);
    stmt.Bind(1, key_->value_);
    stmt.Step();
  } catch (const SqlFailure& failure) {
    Fail("key " + KeyText() + ": delete: " + failure.message);
  }
  ++impl.global_epoch;
  Reset();
}

void CustomTable::Post() {
  Prepare();
  Live();  // a closed database is refused before a missing row
  if (state_ == kEnd) Fail("post: no current row (New() or a lookup first)");
  if (state_ == kNew)
    Insert();
  else
    Update();
}

void CustomTable::Insert() {
  Cache::Impl& impl = Live().impl();
  // The columns written: every field but an unassigned key, and but a
  // column whose default SQLite computes (read back after the insert).
  uint64_t mask = 0;
  bool reload = false;
  for (size_t i = 0; i < fields_.size(); ++i) {
    Field* f = fields_[i];
    if (f == key_ && !f->dirty_) continue;
    if (!f->dirty_ && !columns_[i]->default_known) {
      reload = true;
      continue;
    }
    mask |= uint64_t{1} << i;
  }
  const PostColumns columns(fields_, mask);
  Prepared& prepared = insert_sql_[mask];
  std::string& sql = prepared.sql;
  if (sql.empty()) {
    sql = columns.Empty() ? "INSERT INTO " + Ident(table_) + " DEFAULT VALUES"
                          : "INSERT INTO " + Ident(table_) + " (" + columns.Names("") +
                                ") VALUES (" + columns.Marks() + ")";
  }
  try {
    Statement stmt(impl, sql, &prepared.stmt);
    columns.Bind(stmt);
    stmt.Step();
  } catch (const SqlFailure& failure) {
    Fail("new row: " + failure.message);
  }
  key_->value_ = IntValue(sqlite3_last_insert_rowid(impl.db));
  ++info_->epoch;
  if (impl.has_triggers) ++impl.global_epoch;
  if (reload) {
    const int64_t key = key_->Value();
    const bool found = Named(table_, "key " + std::to_string(key), [&] {
      return Fetch(FieldSql(key_->index_), {IntValue(key)});
    });
    if (!found) Fail("key " + std::to_string(key) + ": the new row is gone after its insert");
  }
  for (Field* f : fields_) f->dirty_ = false;
  state_ = kRow;
  filter_ = Filter();
}

void CustomTable::Update() {
  Cache::Impl& impl = Live().impl();
  uint64_t mask = 0;
  for (size_t i = 0; i < fields_.size(); ++i)
    if (fields_[i]->dirty_) mask |= uint64_t{1} << i;
  if (mask == 0) return;  // nothing changed
  const PostColumns columns(fields_, mask);
  Prepared& prepared = update_sql_[mask];
  std::string& sql = prepared.sql;
  if (sql.empty()) {
    sql = "UPDATE " + Ident(table_) + " SET " + columns.Names(" = ?") + " WHERE " +
          Ident(key_->Column()) + " = ?";
  }
  try {
    Statement stmt(impl, sql, &prepared.stmt);
    const int key_param = columns.Bind(stmt);
    stmt.Bind(key_param, key_->value_);
    stmt.Step();
  } catch (const SqlFailure& failure) {
    Fail("key " + KeyText() + ": " + failure.message);
  }
  ++info_->epoch;
  if (impl.has_triggers) ++impl.global_epoch;
  if (sqlite3_changes(impl.db) == 0) Fail("key " + KeyText() + ": no such row (deleted meanwhile)");
  for (Field* f : fields_) f->dirty_ = false;
}

bool CustomTable::Lookup(std::initializer_list<Match> matches) {
  Prepare();
  Filter filter;
  std::string combination;  // the field numbers, one byte each
  for (const Match& m : matches) {
    if (&m.field.Table() != this) Fail("lookup: field " + m.field.Column() + " is not of " + table_);
    Value v;
    if (!m.field.Parse(m.value, v) || v.kind == Value::kNull) {
      Reset();
      return false;
    }
    combination += static_cast<char>(m.field.index_);
    filter.params.push_back(std::move(v));
  }
  if (combination.empty()) Fail("lookup: no field given");
  Prepared* sql = nullptr;
  auto it = fields_sql_.find(combination);
  if (it != fields_sql_.end()) {
    sql = &it->second;
  } else {
    Prepared p;
    for (const Match& m : matches) {
      if (!p.where.empty()) p.where += " AND ";
      p.where += Ident(m.field.Column()) + " = ?";
    }
    p.sql = select_ + " WHERE " + p.where + " ORDER BY " + Ident(key_->Column()) + " LIMIT 1";
    sql = &fields_sql_.emplace(combination, std::move(p)).first->second;
  }
  filter.where = sql->where;
  try {
    // Not remembered: a pass looks each mailbox up once and then posts it,
    // which would make any remembered row stale at once.
    return PositionBy(*sql, std::move(filter), false);
  } catch (const SqlFailure& failure) {
    std::string what;
    for (const Match& m : matches)
      what += (what.empty() ? "" : ", ") + m.field.Column() + " = \"" + m.value + "\"";
    Fail("lookup " + what + ": " + failure.message);
  }
}

void CustomTable::First() {
  Prepare();
  Named(table_, "first row", [&] { return PositionBy(WhereSql(""), Filter(), false); });
}

void CustomTable::Next() {
  Prepare();
  if (state_ == kEnd) return;
  if (state_ == kNew) {
    Reset();
    return;
  }
  Filter filter = std::move(filter_);
  auto it = next_sql_.find(filter.where);
  if (it == next_sql_.end()) {
    if (next_sql_.size() >= kWhereLimit) {
      for (auto& [key, p] : next_sql_) sqlite3_finalize(p.stmt);
      next_sql_.clear();
    }
    Prepared p;
    p.where = filter.where;
    p.sql = select_ + " WHERE " + Ident(key_->Column()) + " > ?";
    if (!filter.where.empty()) p.sql += " AND " + filter.where;
    p.sql += " ORDER BY " + Ident(key_->Column()) + " LIMIT 1";
    it = next_sql_.emplace(filter.where, std::move(p)).first;
  }
  std::vector<Value> params{key_->value_};
  params.insert(params.end(), filter.params.begin(), filter.params.end());
  try {
    Fetch(it->second, params);
  } catch (const SqlFailure& failure) {
    Fail("next row after key " + std::to_string(params[0].integer) + ": " + failure.message);
  }
  filter_ = std::move(filter);
}

void CustomTable::ClearCache(bool every_cursor) {
  memo_.clear();
  if (every_cursor) Live().ClearTableCaches(table_);
}

}  // namespace pnl_db
