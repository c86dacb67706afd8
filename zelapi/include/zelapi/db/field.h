// pnl_db fields: a stored value (Value) and the typed columns a table cursor
// declares as members (Field and its kinds).
//
// A field owns the value of its column in its cursor's current row; the
// cursor owns the fields' positions and reads rows into them. Assigning a
// field only changes memory: nothing reaches the database until the cursor's
// Post. A text value is copied once per row read. Fields are used by the
// thread that uses their cursor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace pnl_db {

class CustomTable;

// A stored value of one column: NULL, an integer or a text.
struct Value {
  enum Kind : uint8_t { kNull, kInt, kText };
  Kind kind = kNull;
  int64_t integer = 0;
  std::string text;

  bool operator==(const Value& other) const;
};

// A column of a table cursor, declared as a member of the table class:
//   pnl_db::StringField name{this, "name"};
// A field holds the value of its column in the cursor's current row (or the
// new row being built). Not copyable; assigning one field from another of the
// same kind copies the value. References to a field's text are valid until
// the cursor moves.
class Field {
 public:
  Field(CustomTable* table, const char* column);
  virtual ~Field() = default;
  Field(const Field&) = delete;

  const std::string& Column() const { return column_; }
  CustomTable& Table() const { return *table_; }

  // The value as text: an integer in decimal, a boolean "1" or "0", a text as
  // it is, NULL as "".
  std::string Str() const;
  operator std::string() const { return Str(); }
  // The value as an SQL literal: 5, 'O''Brien', NULL.
  std::string AsString() const;
  bool IsNull() const { return value_.kind == Value::kNull; }

  // Assigns the value given as text, parsed as Str() writes it (an empty text
  // is NULL for key, reference and integer columns). Throws pnl_err::Error
  // (type "db", object "table.column") for text the column cannot hold.
  void SetText(const std::string& text);

  // Positions the table on the first row (in key order) whose column equals
  // value, given as text as for SetText; Next() then walks the further rows
  // with that value. Returns false, the table at the end, when there is none
  // (also for text the column cannot hold). Throws on an SQL error.
  bool Lookup(const std::string& value);

  const Value& Raw() const { return value_; }

 protected:
  // Parses text into the column's value; false when it cannot hold it.
  virtual bool Parse(const std::string& text, Value& out) const = 0;
  // The declared SQL type this field expects ("INTEGER" or "TEXT").
  virtual const char* SqlType() const = 0;
  void Assign(Value value);
  void AssignFrom(const Field& other) { Assign(other.value_); }
  [[noreturn]] void Refuse(const std::string& text, const std::string& why) const;

 private:
  friend class CustomTable;
  CustomTable* table_;
  std::string column_;
  Value value_;
  bool dirty_ = false;
  size_t index_ = 0;
};

// The table's key, column INTEGER PRIMARY KEY. Set by the database when a new
// row is posted; SetText may give a new row an explicit key, a stored row's
// key never changes.
class KeyField : public Field {
 public:
  using Field::Field;
  // The key, 0 when there is none (a new row not yet posted).
  int64_t Value() const { return Raw().integer; }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

// A reference to another table's key (INTEGER, may be NULL). A reference of 0
// means none and is stored as NULL.
class RefField : public Field {
 public:
  using Field::Field;
  RefField& operator=(const RefField& other);
  RefField& operator=(const KeyField& key);
  RefField& operator=(int64_t key);
  RefField& operator=(const std::string& text);
  // The referenced key, 0 for NULL.
  int64_t Value() const { return Raw().integer; }
  void SetNull();

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

class IntField : public Field {
 public:
  using Field::Field;
  IntField& operator=(const IntField& other);
  IntField& operator=(int64_t value);
  IntField& operator=(const std::string& text);
  int64_t Value() const { return Raw().integer; }
  operator int64_t() const { return Raw().integer; }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

// A boolean stored as INTEGER 0 or 1. Text forms: "1"/"0", "true"/"false".
// Assignment from text goes through SetText only: a string literal would
// otherwise silently convert to true.
class BoolField : public Field {
 public:
  using Field::Field;
  BoolField& operator=(const BoolField& other);
  BoolField& operator=(bool value);
  BoolField& operator=(const char*) = delete;
  BoolField& operator=(const std::string&) = delete;
  bool Value() const { return Raw().integer != 0; }
  explicit operator bool() const { return Value(); }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "INTEGER"; }
};

class StringField : public Field {
 public:
  using Field::Field;
  StringField& operator=(const StringField& other);
  StringField& operator=(const std::string& text);
  StringField& operator=(const char* text) { return *this = std::string(text); }
  const std::string& Value() const { return Raw().text; }

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "TEXT"; }
};

// A domain name. Assigning a Unicode name stores its ASCII (A-label) form;
// Str() gives the stored ASCII form, Unicode() the display form. Lookup takes
// either form. Assigning a name that cannot be converted throws
// pnl_err::Error (type "db", object "table.column").
class IdnField : public Field {
 public:
  using Field::Field;
  IdnField& operator=(const IdnField& other);
  IdnField& operator=(const std::string& name);
  IdnField& operator=(const char* name) { return *this = std::string(name); }
  const std::string& Value() const { return Raw().text; }
  std::string Unicode() const;

 protected:
  bool Parse(const std::string& text, pnl_db::Value& out) const override;
  const char* SqlType() const override { return "TEXT"; }
};

}  // namespace pnl_db
