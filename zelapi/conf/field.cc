#include "zelapi/conf/field.h"

#include <cstring>
#include <utility>

#include "zelapi/err.h"

namespace dd {

namespace {

bool HasLineEnd(std::string_view value) {
  return !value.empty() && (std::memchr(value.data(), '\n', value.size()) != nullptr ||
                            std::memchr(value.data(), '\r', value.size()) != nullptr);
}

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

Record::Record() = default;
Record::~Record() = default;

Field* Record::FieldByName(const std::string& name) const {
  for (Field* field : fields_)
    if (field->Name() == name) return field;
  return nullptr;
}

Field::Field(Record* record, std::string name, Validator validator)
    : record_(record),
      name_(std::move(name)),
      index_(static_cast<int>(record->fields_.size())),
      validator_(std::move(validator)) {
  record->fields_.push_back(this);
}

Field::~Field() = default;

void Field::Check(const std::string& value) const {
  if (HasLineEnd(value))
    throw pnl_err::Error(pnl_err::Kind::kConf, "field " + name_, "a value cannot hold a line end");
  if (validator_ && !validator_(value))
    throw pnl_err::Error(pnl_err::Kind::kConf, "field " + name_, "value '" + value + "' is not valid");
}

void Field::Set(const std::string& value) {
  Check(value);
  value_ = value;
}

std::string Field::Str() const { return value_; }

void Field::Erase() { value_.clear(); }

void Field::Load(std::string_view stored) { value_.assign(stored); }

std::string Field::Canonical(std::string_view stored) const { return std::string(stored); }

ArrayField::ArrayField(Record* record, std::string name, char separator)
    : Field(record, std::move(name)), separator_(separator) {}

namespace {

// Calls emit(element) for each element of text, by the rules of Split.
template <class Emit>
void ForEachElement(std::string_view text, char separator, Emit&& emit) {
  std::size_t i = 0;
  const std::size_t n = text.size();
  bool any = false;
  for (char c : text)
    if (!IsBlank(c)) {
      any = true;
      break;
    }
  if (!any) return;
  for (;;) {
    // One element: up to the next separator outside quotes.
    std::size_t start = i;
    bool quoted = false;
    while (i < n && (quoted || text[i] != separator)) {
      if (text[i] == '"') quoted = !quoted;
      ++i;
    }
    std::size_t end = i;
    while (start < end && IsBlank(text[start])) ++start;
    while (end > start && IsBlank(text[end - 1])) --end;
    if (start != end) emit(text.substr(start, end - start));
    if (i >= n) break;
    ++i;  // past the separator
  }
}

}  // namespace

std::vector<std::string> ArrayField::Split(std::string_view text, char separator) {
  std::vector<std::string> out;
  ForEachElement(text, separator, [&](std::string_view e) { out.emplace_back(e); });
  return out;
}

std::string ArrayField::Join(const std::vector<std::string>& elements, char separator) {
  std::string out;
  for (std::size_t k = 0; k < elements.size(); ++k) {
    if (k > 0) {
      out += separator;
      if (!IsBlank(separator)) out += ' ';
    }
    out += elements[k];
  }
  return out;
}

void ArrayField::CheckElement(const std::string& value) const {
  Check(value);
  std::vector<std::string> back = Split(value, separator_);
  if (back.size() != 1 || back[0] != value)
    throw pnl_err::Error(pnl_err::Kind::kConf, "field " + Name(),
                         "element '" + value + "' would not read back as one element");
}

void ArrayField::Set(const std::string& text) {
  Check(text);
  elements_ = Split(text, separator_);
}

std::string ArrayField::Str() const { return Join(elements_, separator_); }

void ArrayField::Erase() { elements_.clear(); }

void ArrayField::Append(const std::string& value) {
  CheckElement(value);
  elements_.push_back(value);
}

bool ArrayField::Delete(const std::string& value) {
  for (auto it = elements_.begin(); it != elements_.end(); ++it) {
    if (*it == value) {
      elements_.erase(it);
      return true;
    }
  }
  return false;
}

bool ArrayField::Has(const std::string& value) const {
  for (const std::string& element : elements_)
    if (element == value) return true;
  return false;
}

const std::string& ArrayField::operator[](int i) const {
  if (i < 0 || static_cast<std::size_t>(i) >= elements_.size())
    throw pnl_err::Error(pnl_err::Kind::kConf, "field " + Name(),
                         "no element " + std::to_string(i) + " (the list has " +
                             std::to_string(elements_.size()) + ")");
  return elements_[static_cast<std::size_t>(i)];
}

void ArrayField::Assign(const std::string& value) {
  // The list becomes what the file holds once value is written.
  Check(value);
  elements_ = Split(value, separator_);
}

void ArrayField::Load(std::string_view stored) {
  // The element texts of the last record are reused: moving from record to
  // record allocates nothing once the strings are large enough.
  std::size_t n = 0;
  ForEachElement(stored, separator_, [&](std::string_view e) {
    if (n < elements_.size())
      elements_[n].assign(e.data(), e.size());
    else
      elements_.emplace_back(e);
    ++n;
  });
  elements_.resize(n);
}

std::string ArrayField::Canonical(std::string_view stored) const {
  return Join(Split(stored, separator_), separator_);
}

}  // namespace dd
