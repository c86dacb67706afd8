// pnl_db::CustomTable: positioning, walking, posting and deleting rows of one
// table, and the rows a cursor remembers within a request.
#include <cctype>
#include <utility>

#include "internal.h"
#include "zelapi/err.h"

namespace pnl_db {

namespace {

// A cursor remembers at most this many lookups; past it, it starts afresh.
constexpr size_t kMemoLimit = 4096;

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

std::string MemoKey(const std::string& where, const std::vector<Param>& params) {
  std::string key = where;
  for (const Param& p : params) {
    key += '\x1f';
    if (p.kind() == Param::kNull) key += 'N';
    if (p.kind() == Param::kInt) key += 'I' + std::to_string(p.int_value());
    if (p.kind() == Param::kText) key += 'T' + p.text();
  }
  return key;
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

CustomTable::CustomTable(Cache& cache, std::string table)
    : cache_(&cache), table_(std::move(table)) {}

CustomTable::~CustomTable() = default;

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
  key_ = nullptr;
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
    if (!columns.empty()) columns += ", ";
    columns += Ident(field->Column());
  }
  if (key_ == nullptr) Fail("the table class declares no key field");
  select_ = "SELECT " + columns + " FROM " + Ident(table_);
  info_ = &info;
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
  for (Field* f : fields_) {
    const ColumnInfo* column = info_->Find(f->Column());
    f->value_ = column->primary_key ? Value() : column->default_value;
    f->dirty_ = false;
  }
  state_ = kNew;
  filter_ = Filter();
}

bool CustomTable::MemoValid() {
  Cache& cache = Live();
  const uint64_t global = cache.impl().global_epoch;
  if (!cache.InRequest()) {
    memo_.clear();
    return false;
  }
  if (memo_table_epoch_ != info_->epoch || memo_global_epoch_ != global) {
    memo_.clear();
    memo_table_epoch_ = info_->epoch;
    memo_global_epoch_ = global;
  }
  return true;
}

bool CustomTable::PositionBy(Filter filter, bool remember, const std::string& what) {
  Prepare();
  std::string sql = select_;
  if (!filter.where.empty()) sql += " WHERE " + filter.where;
  sql += " ORDER BY " + Ident(key_->Column()) + " LIMIT 1";

  std::string memo_key;
  if (remember && MemoValid()) {
    memo_key = MemoKey(filter.where, filter.params);
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

  const bool found = Fetch(sql, filter.params, what);
  filter_ = std::move(filter);
  if (!memo_key.empty()) {
    if (memo_.size() >= kMemoLimit) memo_.clear();
    Memo memo;
    memo.found = found;
    if (found)
      for (Field* f : fields_) memo.row.push_back(f->value_);
    memo_.emplace(std::move(memo_key), std::move(memo));
  }
  return found;
}

bool CustomTable::Fetch(const std::string& sql, const std::vector<Param>& params,
                        const std::string& what) {
  Statement stmt(Live().impl(), sql, table_, what);
  stmt.Bind(params);
  if (stmt.Step() != SQLITE_ROW) {
    state_ = kEnd;
    ClearFields();
    return false;
  }
  for (size_t i = 0; i < fields_.size(); ++i) {
    fields_[i]->value_ = stmt.Column(static_cast<int>(i));
    fields_[i]->dirty_ = false;
  }
  state_ = kRow;
  return true;
}

void CustomTable::Assert(const std::string& key) {
  Prepare();
  int64_t number = 0;
  if (!ParseInt(key, number)) Fail("no row with key \"" + key + "\"");
  if (!PositionBy({Ident(key_->Column()) + " = ?", {number}}, true, "key " + key))
    Fail("no row with key " + std::to_string(number));
}

bool CustomTable::DbFind(const std::string& condition) {
  Prepare();
  std::string column, op;
  int64_t number = 0;
  if (SplitSimpleCondition(condition, column, op, number) && info_->Find(column) != nullptr)
    return PositionBy({Ident(column) + " " + op + " ?", {number}}, true,
                      "condition \"" + condition + "\"");
  return PositionBy({"(" + condition + ")", {}}, true, "condition \"" + condition + "\"");
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
  if (SplitSimpleCondition(condition, column, op, number) && info_->Find(column) != nullptr) {
    Statement stmt(impl, "DELETE FROM " + Ident(table_) + " WHERE " + Ident(column) + " " + op +
                             " ?",
                   table_, what);
    stmt.Bind({number});
    stmt.Step();
  } else {
    Statement stmt(impl, "DELETE FROM " + Ident(table_) + " WHERE (" + condition + ")", table_,
                   what);
    stmt.Step();
  }
  ++impl.global_epoch;
}

void CustomTable::Delete() {
  Prepare();
  if (state_ == kEnd) Fail("delete: no current row");
  if (state_ == kNew) Fail("delete: the new row is not posted");
  const std::string key = KeyText();
  Cache::Impl& impl = Live().impl();
  ++impl.global_epoch;
  Statement stmt(impl, "DELETE FROM " + Ident(table_) + " WHERE " + Ident(key_->Column()) + " = ?",
                 table_, "key " + key + ": delete");
  stmt.Bind({key_->Value()});
  stmt.Step();
  ++impl.global_epoch;
  Reset();
}

void CustomTable::Post() {
  Prepare();
  Cache::Impl& impl = Live().impl();
  if (state_ == kEnd) Fail("post: no current row (New() or a lookup first)");

  std::vector<Param> params;
  auto param_of = [](const Value& v) -> Param {
    if (v.kind == Value::kInt) return Param(static_cast<long long>(v.integer));
    if (v.kind == Value::kText) return Param(v.text);
    return Param(nullptr);
  };

  if (state_ == kNew) {
    std::string columns, marks;
    bool reload = false;
    for (Field* f : fields_) {
      const ColumnInfo* column = info_->Find(f->Column());
      if (f == key_ && !f->dirty_) continue;
      if (!f->dirty_ && !column->default_known) {
        reload = true;  // SQLite computes this default; read it back after the insert
        continue;
      }
      if (!columns.empty()) {
        columns += ", ";
        marks += ", ";
      }
      columns += Ident(f->Column());
      marks += "?";
      params.push_back(param_of(f->value_));
    }
    const std::string sql =
        columns.empty() ? "INSERT INTO " + Ident(table_) + " DEFAULT VALUES"
                        : "INSERT INTO " + Ident(table_) + " (" + columns + ") VALUES (" + marks +
                              ")";
    {
      Statement stmt(impl, sql, table_, "new row");
      stmt.Bind(params);
      stmt.Step();
    }
    const int64_t key = sqlite3_last_insert_rowid(impl.db);
    key_->value_.kind = Value::kInt;
    key_->value_.integer = key;
    ++info_->epoch;
    if (impl.has_triggers) ++impl.global_epoch;
    if (reload) {
      if (!Fetch(select_ + " WHERE " + Ident(key_->Column()) + " = ?", {key},
                 "key " + std::to_string(key)))
        Fail("key " + std::to_string(key) + ": the new row is gone after its insert");
    }
    for (Field* f : fields_) f->dirty_ = false;
    state_ = kRow;
    filter_ = Filter();
    return;
  }

  std::string sets;
  for (Field* f : fields_) {
    if (!f->dirty_) continue;
    if (!sets.empty()) sets += ", ";
    sets += Ident(f->Column()) + " = ?";
    params.push_back(param_of(f->value_));
  }
  if (sets.empty()) return;  // nothing changed
  const std::string key = KeyText();
  params.push_back(Param(static_cast<long long>(key_->Value())));
  {
    Statement stmt(impl,
                   "UPDATE " + Ident(table_) + " SET " + sets + " WHERE " + Ident(key_->Column()) +
                       " = ?",
                   table_, "key " + key);
    stmt.Bind(params);
    stmt.Step();
  }
  ++info_->epoch;
  if (impl.has_triggers) ++impl.global_epoch;
  if (sqlite3_changes(impl.db) == 0) Fail("key " + key + ": no such row (deleted meanwhile)");
  for (Field* f : fields_) f->dirty_ = false;
}

bool CustomTable::Lookup(std::initializer_list<Match> matches) {
  Prepare();
  Filter filter;
  for (const Match& m : matches) {
    if (&m.field.Table() != this) Fail("lookup: field " + m.field.Column() + " is not of " + table_);
    Value v;
    if (!m.field.Parse(m.value, v) || v.kind == Value::kNull) {
      Reset();
      return false;
    }
    if (!filter.where.empty()) filter.where += " AND ";
    filter.where += Ident(m.field.Column()) + " = ?";
    filter.params.push_back(v.kind == Value::kInt ? Param(static_cast<long long>(v.integer))
                                                  : Param(v.text));
  }
  if (filter.where.empty()) Fail("lookup: no field given");
  return PositionBy(std::move(filter), true, "lookup");
}

void CustomTable::First() {
  Prepare();
  PositionBy(Filter(), false, "first row");
}

void CustomTable::Next() {
  Prepare();
  if (state_ == kEnd) return;
  if (state_ == kNew) {
    Reset();
    return;
  }
  Filter filter = filter_;
  std::vector<Param> params{Param(static_cast<long long>(key_->Value()))};
  params.insert(params.end(), filter.params.begin(), filter.params.end());
  std::string sql = select_ + " WHERE " + Ident(key_->Column()) + " > ?";
  if (!filter.where.empty()) sql += " AND " + filter.where;
  sql += " ORDER BY " + Ident(key_->Column()) + " LIMIT 1";
  Fetch(sql, params, "next row after key " + KeyText());
  filter_ = std::move(filter);
}

void CustomTable::ClearCache(bool every_cursor) {
  memo_.clear();
  if (every_cursor) Live().ClearTableCaches(table_);
}

}  // namespace pnl_db
