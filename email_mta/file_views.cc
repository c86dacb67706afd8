#include "email/file_views.h"

#include <initializer_list>

#include "zelapi/err.h"

namespace email {

namespace {

// A view claims a line only when the tokenizer stands on its first token.
bool AtLineStart(Cf& cf) { return cf.pos() == cf.line_offset(); }

// The parts of a line joined, ending with the line end. (Built by appending:
// g++ 12 sees a false overlap in chains of operator+ on strings.)
std::string Line(std::initializer_list<std::string> parts) {
  std::string line;
  for (const std::string& part : parts) line += part;
  line += '\n';
  return line;
}

}  // namespace

HostNames::HostNames() = default;

bool HostNames::Parse(Cf& cf) {
  if (!AtLineStart(cf)) return false;
  cf.CacheStart(*this, true);
  cf.CacheField(name);
  cf.CacheDone(*this, true);
  return true;
}

std::string HostNames::NewRecordTemplate() { return Line({name.Str()}); }

VirtualDomains::VirtualDomains() = default;

bool VirtualDomains::Parse(Cf& cf) {
  if (!AtLineStart(cf)) return false;
  cf.CacheStart(*this, true);
  if (cf.token() != "@") return false;
  cf.GetToken(false);
  cf.CacheField(name);
  cf.GetUntilToken("\n", false, true);
  cf.CacheField(target);
  cf.CacheDone(*this, false);
  return true;
}

std::string VirtualDomains::NewRecordTemplate() {
  return Line({"@", name.Str(), "\t", target.Str()});
}

VirtualEmails::VirtualEmails() = default;

bool VirtualEmails::Parse(Cf& cf) {
  if (!AtLineStart(cf)) return false;
  cf.CacheStart(*this, true);
  if (cf.token() == "@") return false;  // a catch-all line
  cf.AddToken();
  // The first word must be followed directly by "@". at() throws on an empty
  // token; the engine then leaves the line unclaimed.
  if (cf.token().at(cf.token().size() - 1) != '@') return false;
  cf.AddToken();
  cf.CacheField(name);
  cf.GetUntilToken("\n", false, true);
  cf.CacheField(target);
  cf.CacheDone(*this, false);
  return true;
}

std::string VirtualEmails::NewRecordTemplate() {
  return Line({name.Str(), "\t", target.Str()});
}

Aliases::Aliases() = default;

bool Aliases::Parse(Cf& cf) {
  if (!AtLineStart(cf)) return false;
  cf.CacheStart(*this, true);
  cf.CacheField(name);
  cf.GetUntilToken("\n", false, true);
  cf.CacheField(alias);
  cf.CacheDone(*this, false);
  return true;
}

std::string Aliases::NewRecordTemplate() { return Line({Text(name.Str(), alias.Elements())}); }

std::string Aliases::Text(const std::string& name, const std::vector<std::string>& targets) {
  std::string text = name;
  text += ":\t";
  text += dd::ArrayField::Join(targets, ',');
  return text;
}

void CheckAliasesEntry(const std::string& name, const std::vector<std::string>& targets,
                       std::size_t forwards) {
  const std::size_t bytes = Aliases::Text(name, targets).size();
  if (bytes <= kLongestAliasesEntry) return;
  std::string detail = std::to_string(bytes) + " bytes";
  if (forwards > 0)
    detail += " with its " + std::to_string(forwards) + (forwards == 1 ? " forward" : " forwards");
  detail += ", over sendmail's limit of " + std::to_string(kLongestAliasesEntry) + " bytes";
  if (forwards > 0) detail += "; remove forwards";
  throw pnl_err::Error(pnl_err::Kind::kLimit, "aliases entry \"" + name + "\"", detail);
}

SourceTarget::SourceTarget() = default;

bool SourceTarget::Parse(Cf& cf) {
  if (!AtLineStart(cf)) return false;
  cf.CacheStart(*this, true);
  cf.CacheField(source);
  cf.GetUntilToken("\n", false, true);
  cf.CacheField(target);
  cf.CacheDone(*this, false);
  return true;
}

std::string SourceTarget::NewRecordTemplate() {
  return Line({source.Str(), "\t", target.Str()});
}

}  // namespace email
