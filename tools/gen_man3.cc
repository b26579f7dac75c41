// Writes sbacc(3) from the comments of sbacc.h, so the header stays the one
// place the calls are described:
//   sbacc_gen_man3 include/sbacc.h VERSION sbacc.3
// The file's first comment is the description; a comment before SBACC_API
// prototypes (or header-only helpers) describes those calls; one before a
// typedef describes the type; the #define codes with their trailing comments
// make the error list.  In a comment, a blank line starts a paragraph.
#include <ctype.h>
#include <stdio.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

struct Block {
  std::vector<std::string> code;  // prototypes or declaration lines
  std::vector<std::string> text;  // the comment, one entry per line
};

bool StartsWith(const std::string& s, const char* p) { return s.rfind(p, 0) == 0; }

std::string Trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// A comment line without its " * " frame.
std::string Unframe(std::string s) {
  s = Trim(s);
  if (StartsWith(s, "/*")) s = s.substr(2);
  if (s.size() >= 2 && s.compare(s.size() - 2, 2, "*/") == 0) s.resize(s.size() - 2);
  s = Trim(s);
  if (StartsWith(s, "*")) s = Trim(s.substr(1));
  return s;
}

std::string Roff(const std::string& s) {
  std::string out;
  for (char c : s) out += c == '\\' ? std::string("\\e") : std::string(1, c);
  return (StartsWith(out, ".") || StartsWith(out, "'")) ? "\\&" + out : out;
}

void Text(FILE* out, const std::vector<std::string>& lines) {
  bool para = false;
  for (const std::string& l : lines) {
    if (l.empty()) {
      para = true;
      continue;
    }
    if (para) fprintf(out, ".PP\n");
    para = false;
    fprintf(out, "%s\n", Roff(l).c_str());
  }
}

void Code(FILE* out, const std::vector<std::string>& lines) {
  fprintf(out, ".PP\n.nf\n");
  for (const std::string& l : lines) fprintf(out, "%s\n", Roff(l).c_str());
  fprintf(out, ".fi\n");
}

}  // namespace

struct ErrorCode {
  std::string name, value, text;
};

// What sbacc.h declares, with the comments that describe it.
struct Header {
  std::vector<std::string> description, codes_intro;
  std::vector<Block> calls, types;
  std::vector<ErrorCode> codes;
};

Header Parse(const std::vector<std::string>& lines) {
  Header h;
  std::vector<std::string>& description = h.description;
  std::vector<std::string>& codes_intro = h.codes_intro;
  std::vector<Block>& calls = h.calls;
  std::vector<Block>& types = h.types;
  std::vector<ErrorCode>& codes = h.codes;
  std::vector<std::string> comment;
  const std::regex code_re(R"(#define\s+(SBACC_(?:OK|E_\w+))\s+(\S+)\s*(?:/\*\s*(.*?)\s*\*/)?)");
  bool have_comment = false, first = true;
  Block* last = nullptr;  // where a following uncommented declaration belongs

  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string line = Trim(lines[i]);
    if (StartsWith(line, "/*")) {
      comment.clear();
      for (;; ++i) {
        comment.push_back(Unframe(lines[i]));
        if (lines[i].find("*/") != std::string::npos || i + 1 == lines.size()) break;
      }
      while (!comment.empty() && comment.back().empty()) comment.pop_back();
      while (!comment.empty() && comment.front().empty()) comment.erase(comment.begin());
      if (first) {
        description = comment;
        first = false;
      } else {
        have_comment = true;
      }
      continue;
    }
    if (line.empty()) continue;
    std::smatch m;
    if (std::regex_match(line, m, code_re)) {
      if (have_comment) codes_intro = comment;
      std::string value = m[2];
      if (value.size() > 2 && value.front() == '(' && value.back() == ')') value = value.substr(1, value.size() - 2);
      codes.push_back({m[1], value, m[3]});
    } else if (StartsWith(line, "SBACC_API ") || StartsWith(line, "static inline ")) {
      std::string proto = line.substr(line.find(' ') + 1);
      if (StartsWith(line, "static inline ")) proto = proto.substr(proto.find(' ') + 1);
      if (proto.back() != ';') proto = proto.substr(0, proto.rfind(')') + 1) + ";";
      if (have_comment || last == nullptr || last != (calls.empty() ? nullptr : &calls.back())) {
        calls.push_back({{}, have_comment ? comment : std::vector<std::string>{}});
      }
      calls.back().code.push_back(proto);
      last = &calls.back();
      // A header-only helper's body ends at the first closing brace in column 0.
      if (StartsWith(line, "static inline ")) {
        while (i + 1 < lines.size() && lines[i] != "}") ++i;
      }
    } else if (StartsWith(line, "typedef ")) {
      if (have_comment || types.empty() || last != &types.back()) {
        types.push_back({{}, have_comment ? comment : std::vector<std::string>{}});
      }
      int depth = 0;
      for (;; ++i) {
        const std::string& d = lines[i];
        types.back().code.push_back(d);
        for (char c : d) depth += c == '{' ? 1 : (c == '}' ? -1 : 0);
        if ((depth == 0 && Trim(d).back() == ';') || i + 1 == lines.size()) break;
      }
      last = &types.back();
    } else if (!StartsWith(line, "#")) {
      last = nullptr;
    }
    have_comment = false;
  }
  return h;
}

void Write(FILE* out, const Header& h, const char* version) {
  const auto& [description, codes_intro, calls, types, codes] = h;
  fprintf(out, ".TH SBACC 3 \"\" \"libsbacc %s\" \"Library Functions Manual\"\n.SH NAME\n", version);
  std::string names;
  for (const Block& b : calls) {
    for (const std::string& p : b.code) {
      const std::string head = p.substr(0, p.find('('));
      names += (names.empty() ? "" : ", ") + head.substr(head.find_last_of(" *") + 1);
    }
  }
  fprintf(out, "%s \\- mirrored, crash-safe access to named data areas\n", names.c_str());
  fprintf(out, ".SH LIBRARY\nlibsbacc (\\fI\\-lsbacc\\fR; \\fBpkg\\-config \\-\\-cflags \\-\\-libs sbacc\\fR)\n");
  fprintf(out, ".SH SYNOPSIS\n.nf\n.B #include <sbacc.h>\n.PP\n");
  for (const Block& b : calls) {
    for (const std::string& p : b.code) fprintf(out, "%s\n", Roff(p).c_str());
  }
  fprintf(out, ".fi\n.SH DESCRIPTION\n");
  Text(out, description);
  fprintf(out, ".SH FUNCTIONS\n");
  for (const Block& b : calls) {
    std::string head;
    for (const std::string& p : b.code) {
      const std::string h = p.substr(0, p.find('('));
      head += (head.empty() ? "" : ", ") + h.substr(h.find_last_of(" *") + 1);
    }
    fprintf(out, ".SS \"%s\"\n", head.c_str());
    // "sbacc_open: opens ..." reads as "Opens ..." under its own heading.
    std::vector<std::string> text = b.text;
    if (!text.empty() && StartsWith(text[0], (head + ": ").c_str())) {
      text[0] = text[0].substr(head.size() + 2);
      text[0][0] = static_cast<char>(toupper(static_cast<unsigned char>(text[0][0])));
    }
    Text(out, text);
  }
  fprintf(out, ".SH TYPES\n");
  for (const Block& b : types) {
    Code(out, b.code);
    if (!b.text.empty()) fprintf(out, ".PP\n");
    Text(out, b.text);
  }
  fprintf(out, ".SH ERRORS\n");
  Text(out, codes_intro);
  for (const ErrorCode& c : codes) {
    fprintf(out, ".TP\n.BR %s \" (%s)\"\n%s\n", c.name.c_str(), c.value.c_str(),
            Roff(c.text.empty() ? "success" : c.text).c_str());
  }
  fprintf(out, ".SH \"SEE ALSO\"\n.BR sbacc (1)\n");
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: %s sbacc.h VERSION sbacc.3\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1]);
  if (!in) {
    fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[1]);
    return 2;
  }
  std::vector<std::string> lines;
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  const Header h = Parse(lines);
  FILE* out = fopen(argv[3], "w");
  if (out == nullptr) {
    fprintf(stderr, "%s: cannot write %s\n", argv[0], argv[3]);
    return 2;
  }
  Write(out, h, argv[2]);
  return fclose(out) == 0 ? 0 : 2;
}
