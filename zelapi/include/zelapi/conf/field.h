// dd: records and their fields, the values a cursor shows and edits.
//
// A record view declares its fields as members, in order; each field
// registers itself with the record it is given, and its index is its
// position (the first field, index 0, is the record's key). Fields hold
// the current record's values as plain text; the engine fills them when the
// cursor moves and reads them back when the record is posted.
//
// Values that would break the line-oriented files are refused at the door:
// any value or list element containing "\n" or "\r" is rejected with
// pnl_err::Error (type "conf") before anything is changed.
//
// A record and its fields belong to one thread at a time. Fields cannot be
// copied (they are registered by address); assigning one field from another
// copies the value.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

class ConfDataSet;

namespace dd {

class Field;

// Navigation over the records of one view of one file. The operations are
// provided by the configuration engine (ConfDataSet); see there for when
// each one looks at the disk and what it throws.
class Record {
 public:
  virtual ~Record();

  // Positions on the first record (in file order) whose key is key.
  virtual bool Find(const std::string& key) = 0;
  virtual void First() = 0;
  virtual void Next() = 0;
  virtual bool Eof() const = 0;
  // Starts a new record with every field empty; Post writes it.
  virtual void New() = 0;
  // Positions on the record with key, or starts a new record with its key
  // set to key if there is none.
  virtual void Create(const std::string& key) = 0;
  // Positions on the record with key or throws pnl_err::Error(pnl_err::Kind::kConf).
  virtual void Assert(const std::string& key) = 0;

  std::size_t FieldCount() const { return fields_.size(); }
  // Precondition: index < FieldCount(). The reference lives as the record.
  Field& FieldAt(std::size_t index) const { return *fields_[index]; }
  // The field called name, or null.
  Field* FieldByName(const std::string& name) const;

 protected:
  Record();
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

 private:
  friend class Field;
  std::vector<Field*> fields_;
};

// One text value of a record.
class Field {
 public:
  // A check of a value given with Set or =; false refuses it. Values read
  // from the file are not checked.
  using Validator = std::function<bool(const std::string&)>;

  // Registers the field as the next field of record (which must not be
  // null and must outlive the field).
  Field(Record* record, std::string name, Validator validator = nullptr);
  virtual ~Field();
  Field(const Field&) = delete;

  const std::string& Name() const { return name_; }
  // Position of the field in its record; 0 is the key.
  int Index() const { return index_; }
  Record& Owner() const { return *record_; }

  // Replaces the value. Throws pnl_err::Error(pnl_err::Kind::kConf) when the value holds
  // a line end or the validator refuses it; the value is then unchanged.
  virtual void Set(const std::string& value);
  // The value as it would be written.
  virtual std::string Str() const;
  // Makes the value empty.
  virtual void Erase();

  operator std::string() const { return Str(); }
  // As Set for a plain field; ArrayField gives it its own meaning.
  Field& operator=(const std::string& value) {
    Assign(value);
    return *this;
  }
  Field& operator=(const Field& other) {
    Assign(other.Str());
    return *this;
  }

  // For the engine: sets the value read from the file (no checks), and the
  // form a stored text takes once read into this field (Str of it).
  virtual void Load(std::string_view stored);
  virtual std::string Canonical(std::string_view stored) const;

 protected:
  virtual void Assign(const std::string& value) { Set(value); }
  // Throws unless value is free of line ends and accepted by the validator.
  void Check(const std::string& value) const;

 private:
  Record* record_;
  std::string name_;
  int index_;
  Validator validator_;
  std::string value_;
};

// A list of elements kept in one field, joined by a separator character.
//
// Splitting a text: at each separator that is not inside double quotes
// ("\"|/bin/prog a,b\"" is one element), blanks (spaces and tabs) around
// each element trimmed; empty elements are dropped ("a,,b" and "root,"
// hold no empty target); a text of blanks only is the empty list.
// Joining: the separator, followed by one space for a non-blank separator
// ("a, b"); a blank separator joins with itself alone ("a b").
class ArrayField : public Field {
 public:
  ArrayField(Record* record, std::string name, char separator);

  char Separator() const { return separator_; }

  // Splits text into the elements (throws on a line end; list unchanged).
  void Set(const std::string& text) override;
  // The elements joined.
  std::string Str() const override;
  // Empties the list.
  void Erase() override;

  // Adds value as the last element. Throws pnl_err::Error(pnl_err::Kind::kConf) if value
  // holds a line end or would not read back as that one element (it holds
  // an unquoted separator, starts or ends with a blank, or is empty).
  void Append(const std::string& value);
  // Removes the first element equal to value; false if there is none.
  bool Delete(const std::string& value);
  bool Has(const std::string& value) const;
  std::size_t Size() const { return elements_.size(); }
  // Element i; throws pnl_err::Error(pnl_err::Kind::kConf) when i is out of range. The
  // reference is valid until the list changes.
  const std::string& operator[](int i) const;
  const std::vector<std::string>& Elements() const { return elements_; }

  // The whole list becomes value: the one element value, or, when value
  // holds separators outside quotes, the elements it reads back as (as
  // Set). An empty value makes the list empty. Throws on a line end.
  ArrayField& operator=(const std::string& value) {
    Assign(value);
    return *this;
  }

  void Load(std::string_view stored) override;
  std::string Canonical(std::string_view stored) const override;

  // Splitting and joining by the rules above, for any separator.
  static std::vector<std::string> Split(std::string_view text, char separator);
  static std::string Join(const std::vector<std::string>& elements, char separator);

 protected:
  void Assign(const std::string& value) override;

 private:
  void CheckElement(const std::string& value) const;

  char separator_;
  std::vector<std::string> elements_;
};

}  // namespace dd
