#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>

#include "zelapi/str.h"
#include "zelapi/warn.h"

namespace zelpnl {

namespace {

// Characters of UTF-8 text: bytes that do not continue a sequence.
size_t Width(const std::string& text) {
  size_t width = 0;
  for (unsigned char c : text)
    if ((c & 0xC0) != 0x80) ++width;
  return width;
}

void Pad(std::string& line, const std::string& cell, size_t width) {
  line += cell;
  for (size_t w = Width(cell); w < width; ++w) line += ' ';
}

std::string TrimRight(std::string line) {
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

// The length of the UTF-8 sequence at text[i] that Printable escapes (0
// when it keeps it): C1 controls (U+0080..U+009F) and the format
// characters that reorder or hide text.
size_t HiddenControl(const std::string& text, size_t i, unsigned* code) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[i + k]); };
  if (i + 1 < text.size() && byte(0) == 0xC2 && byte(1) >= 0x80 && byte(1) <= 0x9F) {
    *code = byte(1);
    return 2;
  }
  if (i + 2 < text.size() && byte(0) == 0xE2) {
    const unsigned c = 0x2000 | ((byte(1) & 0x3F) << 6) | (byte(2) & 0x3F);
    if ((c >= 0x200B && c <= 0x200F) || (c >= 0x202A && c <= 0x202E) ||
        (c >= 0x2060 && c <= 0x2069)) {
      *code = c;
      return 3;
    }
  }
  if (i + 2 < text.size() && byte(0) == 0xEF && byte(1) == 0xBB && byte(2) == 0xBF) {
    *code = 0xFEFF;
    return 3;
  }
  return 0;
}

bool HasHiddenControl(const std::string& text) {
  unsigned code = 0;
  for (size_t i = 0; i < text.size(); ++i)
    if (HiddenControl(text, i, &code) > 0) return true;
  return false;
}

}  // namespace

std::string Printable(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    char hex[16];
    unsigned code = 0;
    if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7F) {
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
      ++i;
    } else if (const size_t n = HiddenControl(text, i, &code)) {
      std::snprintf(hex, sizeof hex, "\\u{%04X}", code);
      out += hex;
      i += n;
    } else {
      out += static_cast<char>(c);
      ++i;
    }
  }
  return out;
}

void Output::Print(const nlohmann::ordered_json& data, const std::string& text) const {
  if (capture_) {
    *capture_ = data;
    return;
  }
  if (json_) {
    // The request's warnings so far go with the document (and to stderr).
    const std::vector<std::string> warnings = pnl_warn::Pending();
    const bool with_warnings = !warnings.empty() && data.is_object();
    nlohmann::ordered_json with;
    if (with_warnings) {
      with = data;
      with["warnings"] = warnings;
    }
    const nlohmann::ordered_json& doc_data = with_warnings ? with : data;
    constexpr auto kReplace = nlohmann::ordered_json::error_handler_t::replace;
    std::string doc = doc_data.dump(2, ' ', false, kReplace);
    // JSON escapes C0 controls itself; a document that holds other controls
    // is written in ASCII, every other character as \uNNNN.
    if (HasHiddenControl(doc)) doc = doc_data.dump(2, ' ', true, kReplace);
    std::cout << doc << "\n";
  } else {
    std::cout << Printable(text);
  }
  std::cout.flush();
}

void PrintError(const std::string& object, const std::string& detail) {
  std::string cause = detail;
  while (!cause.empty() && (cause.back() == '\n' || cause.back() == '\r')) cause.pop_back();
  if (cause.empty()) cause = "failed";
  std::cerr << "error: " << Printable((object.empty() ? "" : object + ": ") + cause) << "\n";
  std::cerr.flush();
}

void PrintWarning(const std::string& message) {
  std::string text = message;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  std::cerr << "warning: " << Printable(text) << "\n";
  std::cerr.flush();
}

Progress::Progress(std::string label, size_t total, bool draw)
    : label_(std::move(label)), total_(total), draw_(draw) {}

Progress::~Progress() { Done(); }

void Progress::Step(const std::string& what) {
  ++done_;
  if (!draw_) return;
  const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count();
  // A terminal drawn to on every one of 100,000 steps would set the pace.
  if (drawn_ && done_ < total_ && now - last_ms_ < 50) return;
  last_ms_ = now;
  constexpr size_t kWidth = 30;
  const size_t filled = total_ ? std::min(done_, total_) * kWidth / total_ : kWidth;
  std::string bar(filled, '#');
  bar.resize(kWidth, '.');
  std::cerr << "\r\033[K" << label_ << " [" << bar << "] " << done_ << "/" << total_ << " "
            << Printable(what.substr(0, 40));
  std::cerr.flush();
  drawn_ = true;
}

void Progress::Done() {
  if (!drawn_) return;
  std::cerr << "\r\033[K";
  std::cerr.flush();
  drawn_ = false;
}

bool StderrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

std::string Table(const std::vector<std::string>& header,
                  const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths(header.size(), 0);
  for (size_t i = 0; i < header.size(); ++i) widths[i] = Width(header[i]);
  for (const auto& row : rows)
    for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
      widths[i] = std::max(widths[i], Width(row[i]));
  std::string out;
  auto add = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t i = 0; i < cells.size() && i < widths.size(); ++i) {
      if (i) line += "  ";
      Pad(line, cells[i], widths[i]);
    }
    out += TrimRight(line) + "\n";
  };
  add(header);
  for (const auto& row : rows) add(row);
  return out;
}

std::string Fields(const std::vector<std::pair<std::string, std::string>>& fields) {
  size_t width = 0;
  for (const auto& [name, value] : fields) width = std::max(width, Width(name) + 1);
  std::string out;
  for (const auto& [name, value] : fields) {
    std::string line;
    Pad(line, name + ":", width);
    out += TrimRight(line + " " + value) + "\n";
  }
  return out;
}

std::string JoinOrDash(const std::vector<std::string>& items) {
  return items.empty() ? "-" : str::Join(items, ", ");
}

}  // namespace zelpnl
