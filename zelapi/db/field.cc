// pnl_db fields: the typed columns of a table cursor, their text forms and
// their assignments.
#include <utility>

#include "internal.h"
#include "zelapi/err.h"
#include "zelapi/str.h"

namespace pnl_db {

namespace {

bool IsAscii(const std::string& text) {
  for (char c : text)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

Value IntValue(int64_t number) {
  Value v;
  v.kind = Value::kInt;
  v.integer = number;
  return v;
}

Value TextValue(std::string text) {
  Value v;
  v.kind = Value::kText;
  v.text = std::move(text);
  return v;
}

}  // namespace

Field::Field(CustomTable* table, const char* column) : table_(table), column_(column) {
  table_->Register(this);
}

std::string Field::Str() const {
  switch (value_.kind) {
    case Value::kInt:
      return std::to_string(value_.integer);
    case Value::kText:
      return value_.text;
    case Value::kNull:
      break;
  }
  return "";
}

std::string Field::AsString() const {
  switch (value_.kind) {
    case Value::kInt:
      return std::to_string(value_.integer);
    case Value::kText:
      return Cache::EscapeValue(value_.text);
    case Value::kNull:
      break;
  }
  return "NULL";
}

void Field::Assign(Value value) {
  value_ = std::move(value);
  dirty_ = true;
}

void Field::Refuse(const std::string& text, const std::string& why) const {
  throw pnl_err::Error(pnl_err::Kind::kDb, table_->TableName() + "." + column_, "\"" + text + "\" " + why);
}

void Field::SetText(const std::string& text) {
  if (table_->key_ == this || dynamic_cast<const KeyField*>(this) != nullptr) {
    if (!table_->IsNew()) Refuse(text, "refused: the key of a stored row does not change");
  }
  Value v;
  if (!Parse(text, v)) Refuse(text, "is not a value of this column");
  Assign(std::move(v));
}

bool Field::Lookup(const std::string& value) {
  table_->Prepare();
  Value v;
  if (!Parse(value, v) || v.kind == Value::kNull) {
    table_->Reset();
    return false;
  }
  try {
    CustomTable::Prepared& sql = table_->FieldSql(index_);
    return table_->PositionBy(sql, CustomTable::Filter{sql.where, {std::move(v)}}, true);
  } catch (const SqlFailure& failure) {
    Throw(table_->TableName(),
          "lookup " + column_ + " = \"" + value + "\": " + failure.message);
  }
}

// Key --------------------------------------------------------------------

bool KeyField::Parse(const std::string& text, pnl_db::Value& out) const {
  int64_t number = 0;
  if (!ParseInt(text, number)) return false;
  out = IntValue(number);
  return true;
}

// Reference ----------------------------------------------------------------

bool RefField::Parse(const std::string& text, pnl_db::Value& out) const {
  if (text.empty()) {
    out = pnl_db::Value();
    return true;
  }
  int64_t number = 0;
  if (!ParseInt(text, number)) return false;
  out = number == 0 ? pnl_db::Value() : IntValue(number);
  return true;
}

RefField& RefField::operator=(const RefField& other) {
  AssignFrom(other);
  return *this;
}

RefField& RefField::operator=(const KeyField& key) {
  Assign(key.Value() == 0 ? pnl_db::Value() : IntValue(key.Value()));
  return *this;
}

RefField& RefField::operator=(int64_t key) {
  Assign(key == 0 ? pnl_db::Value() : IntValue(key));
  return *this;
}

RefField& RefField::operator=(const std::string& text) {
  SetText(text);
  return *this;
}

void RefField::SetNull() { Assign(pnl_db::Value()); }

// Integer ------------------------------------------------------------------

bool IntField::Parse(const std::string& text, pnl_db::Value& out) const {
  if (text.empty()) {
    out = pnl_db::Value();
    return true;
  }
  int64_t number = 0;
  if (!ParseInt(text, number)) return false;
  out = IntValue(number);
  return true;
}

IntField& IntField::operator=(const IntField& other) {
  AssignFrom(other);
  return *this;
}

IntField& IntField::operator=(int64_t value) {
  Assign(IntValue(value));
  return *this;
}

IntField& IntField::operator=(const std::string& text) {
  SetText(text);
  return *this;
}

// Boolean ------------------------------------------------------------------

bool BoolField::Parse(const std::string& text, pnl_db::Value& out) const {
  if (text == "1" || text == "true") {
    out = IntValue(1);
    return true;
  }
  if (text == "0" || text == "false") {
    out = IntValue(0);
    return true;
  }
  return false;
}

BoolField& BoolField::operator=(const BoolField& other) {
  AssignFrom(other);
  return *this;
}

BoolField& BoolField::operator=(bool value) {
  Assign(IntValue(value ? 1 : 0));
  return *this;
}

// Text ---------------------------------------------------------------------

bool StringField::Parse(const std::string& text, pnl_db::Value& out) const {
  out = TextValue(text);
  return true;
}

StringField& StringField::operator=(const StringField& other) {
  AssignFrom(other);
  return *this;
}

StringField& StringField::operator=(const std::string& text) {
  Assign(TextValue(text));
  return *this;
}

// Domain name --------------------------------------------------------------

bool IdnField::Parse(const std::string& text, pnl_db::Value& out) const {
  if (IsAscii(text)) {
    out = TextValue(text);
    return true;
  }
  std::string ascii;
  if (!str::IdnToAscii(text, ascii)) return false;
  out = TextValue(std::move(ascii));
  return true;
}

IdnField& IdnField::operator=(const IdnField& other) {
  AssignFrom(other);
  return *this;
}

IdnField& IdnField::operator=(const std::string& name) {
  pnl_db::Value v;
  if (!Parse(name, v)) Refuse(name, "cannot be converted to an ASCII domain name");
  Assign(std::move(v));
  return *this;
}

std::string IdnField::Unicode() const { return str::IdnToUnicode(Raw().text); }

}  // namespace pnl_db
