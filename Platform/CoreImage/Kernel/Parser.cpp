// Lexer and recursive-descent parser of kernel text. Every problem becomes a CompileError with
// the line and column of the offending token; nesting is bounded so hostile text cannot exhaust
// the stack.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <set>

#include "CoreImage/Kernel/AST.h"

namespace cikl {

int componentCount(Type t) {
  switch (t) {
    case Type::Float:
    case Type::Int:
    case Type::Bool:
      return 1;
    case Type::Vec2:
    case Type::BVec2:
      return 2;
    case Type::Vec3:
    case Type::BVec3:
      return 3;
    case Type::Vec4:
    case Type::BVec4:
      return 4;
    default:
      return 0;
  }
}

Type scalarOf(Type t) {
  switch (t) {
    case Type::Float:
    case Type::Vec2:
    case Type::Vec3:
    case Type::Vec4:
      return Type::Float;
    case Type::Bool:
    case Type::BVec2:
    case Type::BVec3:
    case Type::BVec4:
      return Type::Bool;
    default:
      return t;
  }
}

Type vectorOf(Type scalar, int n) {
  if (n == 1) return scalar == Type::Float || scalar == Type::Int || scalar == Type::Bool ? scalar : Type::Error;
  if (n < 2 || n > 4) return Type::Error;
  if (scalar == Type::Float) return n == 2 ? Type::Vec2 : n == 3 ? Type::Vec3 : Type::Vec4;
  if (scalar == Type::Bool) return n == 2 ? Type::BVec2 : n == 3 ? Type::BVec3 : Type::BVec4;
  return Type::Error;
}

const char* typeName(Type t) {
  switch (t) {
    case Type::Error: return "<error>";
    case Type::Void: return "void";
    case Type::Float: return "float";
    case Type::Vec2: return "vec2";
    case Type::Vec3: return "vec3";
    case Type::Vec4: return "vec4";
    case Type::Int: return "int";
    case Type::Bool: return "bool";
    case Type::BVec2: return "bvec2";
    case Type::BVec3: return "bvec3";
    case Type::BVec4: return "bvec4";
    case Type::Sampler: return "sampler";
  }
  return "?";
}

namespace {

enum class Tok { End, Ident, Int, Float, Punct };

struct Token {
  Tok kind = Tok::End;
  std::string text;
  double number = 0;
  SourceLoc loc;
};

[[noreturn]] void fail(SourceLoc loc, std::string message) { throw CompileError{loc, std::move(message)}; }

std::vector<Token> lex(const std::string& src) {
  std::vector<Token> out;
  int line = 1, col = 1;
  std::size_t i = 0;
  bool lineStart = true;
  auto advance = [&](std::size_t n) {
    for (std::size_t k = 0; k < n && i < src.size(); ++k, ++i) {
      if (src[i] == '\n') {
        ++line;
        col = 1;
        lineStart = true;
      } else {
        ++col;
      }
    }
  };
  static const char* const kPuncts[] = {"<<=", ">>=", "++", "--", "+=", "-=", "*=", "/=", "%=", "<=", ">=", "==",
                                        "!=",  "&&",  "||", "^^", "<<", ">>", "&=", "|=", "^=", "+",  "-",  "*",
                                        "/",   "%",   "<",  ">",  "=",  "!",  "~",  "&",  "|",  "^",  "?",  ":",
                                        ";",   ",",   ".",  "(",  ")",  "{",  "}",  "[",  "]"};
  while (i < src.size()) {
    const char c = src[i];
    if (c == '\n' || c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v') {
      advance(1);
      continue;
    }
    if (c == '/' && i + 1 < src.size() && src[i + 1] == '/') {
      while (i < src.size() && src[i] != '\n') advance(1);
      continue;
    }
    if (c == '/' && i + 1 < src.size() && src[i + 1] == '*') {
      SourceLoc start{line, col};
      advance(2);
      while (i < src.size() && !(src[i] == '*' && i + 1 < src.size() && src[i + 1] == '/')) advance(1);
      if (i >= src.size()) fail(start, "unterminated comment");
      advance(2);
      continue;
    }
    SourceLoc loc{line, col};
    if (c == '#') {
      if (lineStart) fail(loc, "preprocessor directives are not supported");
      fail(loc, "unexpected character '#'");
    }
    lineStart = false;
    if (std::isalpha(static_cast<unsigned char>(c)) || c == '_') {
      std::size_t j = i;
      while (j < src.size() && (std::isalnum(static_cast<unsigned char>(src[j])) || src[j] == '_')) ++j;
      if (j - i > 255) fail(loc, "identifier is too long");
      out.push_back({Tok::Ident, src.substr(i, j - i), 0, loc});
      advance(j - i);
      continue;
    }
    if (std::isdigit(static_cast<unsigned char>(c)) || (c == '.' && i + 1 < src.size() && std::isdigit(static_cast<unsigned char>(src[i + 1])))) {
      std::size_t j = i;
      bool isFloat = false;
      if (c == '0' && j + 1 < src.size() && (src[j + 1] == 'x' || src[j + 1] == 'X')) {
        j += 2;
        std::size_t digits = j;
        while (j < src.size() && std::isxdigit(static_cast<unsigned char>(src[j]))) ++j;
        if (j == digits) fail(loc, "malformed hexadecimal literal");
        unsigned long long v = 0;
        auto r = std::from_chars(src.data() + digits, src.data() + j, v, 16);
        if (r.ec != std::errc() || v > 0x7fffffffULL) fail(loc, "integer literal is too large");
        if (j < src.size() && (std::isalnum(static_cast<unsigned char>(src[j])) || src[j] == '_'))
          fail(loc, "malformed number");
        out.push_back({Tok::Int, src.substr(i, j - i), double(v), loc});
        advance(j - i);
        continue;
      }
      while (j < src.size() && std::isdigit(static_cast<unsigned char>(src[j]))) ++j;
      if (j < src.size() && src[j] == '.') {
        isFloat = true;
        ++j;
        while (j < src.size() && std::isdigit(static_cast<unsigned char>(src[j]))) ++j;
      }
      if (j < src.size() && (src[j] == 'e' || src[j] == 'E')) {
        std::size_t k = j + 1;
        if (k < src.size() && (src[k] == '+' || src[k] == '-')) ++k;
        if (k < src.size() && std::isdigit(static_cast<unsigned char>(src[k]))) {
          isFloat = true;
          j = k;
          while (j < src.size() && std::isdigit(static_cast<unsigned char>(src[j]))) ++j;
        } else {
          fail(loc, "malformed exponent in number");
        }
      }
      std::size_t end = j;
      if (isFloat && j < src.size() && (src[j] == 'f' || src[j] == 'F')) ++j;
      if (j < src.size() && (std::isalnum(static_cast<unsigned char>(src[j])) || src[j] == '_'))
        fail(loc, "malformed number");
      if (isFloat) {
        double v = 0;
        auto r = std::from_chars(src.data() + i, src.data() + end, v);
        if (r.ec == std::errc::result_out_of_range) fail(loc, "floating-point literal is out of range");
        if (r.ec != std::errc()) fail(loc, "malformed number");
        out.push_back({Tok::Float, src.substr(i, j - i), v, loc});
      } else {
        int base = (end - i > 1 && src[i] == '0') ? 8 : 10;
        unsigned long long v = 0;
        auto r = std::from_chars(src.data() + i, src.data() + end, v, base);
        if (r.ptr != src.data() + end) fail(loc, "malformed octal literal");
        if (r.ec != std::errc() || v > 0x7fffffffULL) fail(loc, "integer literal is too large");
        out.push_back({Tok::Int, src.substr(i, j - i), double(v), loc});
      }
      advance(j - i);
      continue;
    }
    bool matched = false;
    for (const char* p : kPuncts) {
      std::size_t n = std::strlen(p);
      if (src.compare(i, n, p) == 0) {
        out.push_back({Tok::Punct, p, 0, loc});
        advance(n);
        matched = true;
        break;
      }
    }
    if (!matched) {
      if (static_cast<unsigned char>(c) >= 0x20 && static_cast<unsigned char>(c) < 0x7f)
        fail(loc, std::string("unexpected character '") + c + "'");
      fail(loc, "unexpected character (byte " + std::to_string(static_cast<unsigned char>(c)) + ")");
    }
  }
  out.push_back({Tok::End, "", 0, {line, col}});
  return out;
}

struct TypeSpec {
  Type type = Type::Error;
  ParamKind kind = ParamKind::Value;
};

const std::set<std::string>& reservedWords() {
  static const std::set<std::string> words = {
      "attribute", "uniform", "varying", "centroid", "invariant", "out", "inout", "in", "lowp", "mediump", "highp",
      "precision", "asm", "class", "union", "enum", "typedef", "template", "this", "packed", "goto", "switch",
      "default", "case", "inline", "noinline", "volatile", "public", "static", "extern", "external", "interface",
      "long", "short", "double", "half", "fixed", "unsigned", "input", "output", "hvec2", "hvec3", "hvec4", "dvec2",
      "dvec3", "dvec4", "fvec2", "fvec3", "fvec4", "sampler1D", "sampler2D", "sampler3D", "samplerCube",
      "sampler1DShadow", "sampler2DShadow", "sampler2DRect", "sampler3DRect", "sampler2DRectShadow", "sizeof",
      "cast", "namespace", "using", "struct", "mat2", "mat3", "mat4", "ivec2", "ivec3", "ivec4", "break",
      "continue", "discard", "kernel", "sampler", "__sample", "__color", "__table", "const", "if", "else", "for",
      "while", "do", "return", "true", "false", "void", "float", "int", "bool", "vec2", "vec3", "vec4", "bvec2",
      "bvec3", "bvec4", "mat2x2", "mat2x3", "mat2x4", "mat3x2", "mat3x3", "mat3x4", "mat4x2", "mat4x3", "mat4x4"};
  return words;
}

bool isValueTypeWord(const std::string& s) {
  static const std::set<std::string> words = {"void", "float", "int", "bool", "vec2", "vec3", "vec4", "bvec2", "bvec3", "bvec4"};
  return words.count(s) != 0;
}

// Words that name a type, supported or not; used to tell declarations from expressions.
bool isTypeWord(const std::string& s) {
  static const std::set<std::string> words = {"sampler", "__sample", "__color", "__table", "mat2", "mat3", "mat4",
                                              "ivec2", "ivec3", "ivec4", "struct", "sampler2D", "sampler1D",
                                              "sampler3D", "samplerCube", "double", "mat2x2", "mat3x3", "mat4x4"};
  return isValueTypeWord(s) || words.count(s) != 0;
}

Type valueType(const std::string& s) {
  if (s == "void") return Type::Void;
  if (s == "float") return Type::Float;
  if (s == "int") return Type::Int;
  if (s == "bool") return Type::Bool;
  if (s == "vec2") return Type::Vec2;
  if (s == "vec3") return Type::Vec3;
  if (s == "vec4") return Type::Vec4;
  if (s == "bvec2") return Type::BVec2;
  if (s == "bvec3") return Type::BVec3;
  if (s == "bvec4") return Type::BVec4;
  return Type::Error;
}

class Parser {
 public:
  explicit Parser(std::vector<Token> toks) : t_(std::move(toks)) {}

  std::unique_ptr<TranslationUnit> unit() {
    auto u = std::make_unique<TranslationUnit>();
    while (peek().kind != Tok::End) u->functions.push_back(function());
    return u;
  }

 private:
  struct DepthGuard {
    Parser& p;
    DepthGuard(Parser& parser, SourceLoc loc) : p(parser) {
      if (++p.depth_ > kMaxNesting) fail(loc, "nesting is too deep (more than " + std::to_string(kMaxNesting) + " levels)");
    }
    ~DepthGuard() { --p.depth_; }
  };

  const Token& peek(std::size_t k = 0) const { return t_[std::min(pos_ + k, t_.size() - 1)]; }
  const Token& next() {
    const Token& tok = t_[pos_];
    if (pos_ + 1 < t_.size()) ++pos_;
    return tok;
  }
  bool is(const char* punct, std::size_t k = 0) const { return peek(k).kind == Tok::Punct && peek(k).text == punct; }
  bool isWord(const char* w, std::size_t k = 0) const { return peek(k).kind == Tok::Ident && peek(k).text == w; }
  bool accept(const char* punct) {
    if (!is(punct)) return false;
    next();
    return true;
  }
  static std::string describe(const Token& tok) {
    if (tok.kind == Tok::End) return "end of text";
    return "'" + tok.text + "'";
  }
  void expect(const char* punct, const char* context) {
    if (!accept(punct)) fail(peek().loc, std::string("expected '") + punct + "' " + context + ", found " + describe(peek()));
  }

  std::string identifier(const char* what) {
    const Token& tok = peek();
    if (tok.kind != Tok::Ident) fail(tok.loc, std::string("expected ") + what + ", found " + describe(tok));
    if (reservedWords().count(tok.text)) fail(tok.loc, "'" + tok.text + "' is a reserved word and cannot be used as a name");
    if (tok.text.rfind("gl_", 0) == 0) fail(tok.loc, "names beginning with 'gl_' are reserved");
    next();
    return tok.text;
  }

  // Rejects the words of types and qualifiers the language leaves out, with a reason.
  [[noreturn]] void unsupportedType(const Token& tok) {
    const std::string& w = tok.text;
    if (w.rfind("mat", 0) == 0) fail(tok.loc, "matrices are not supported ('" + w + "')");
    if (w == "struct") fail(tok.loc, "structs are not supported");
    if (w.rfind("ivec", 0) == 0) fail(tok.loc, "integer vectors are not supported ('" + w + "')");
    if (w.rfind("sampler", 0) == 0) fail(tok.loc, "'" + w + "' is not supported; use 'sampler'");
    if (w == "uniform" || w == "varying" || w == "attribute" || w == "precision" || w == "lowp" || w == "mediump" || w == "highp")
      fail(tok.loc, "'" + w + "' is not supported in kernels");
    fail(tok.loc, "expected a type, found " + describe(tok));
  }

  TypeSpec typeSpec() {
    const Token& tok = peek();
    if (tok.kind != Tok::Ident) fail(tok.loc, "expected a type, found " + describe(tok));
    if (tok.text == "__table") {
      next();
      if (!isWord("sampler")) fail(peek().loc, "'__table' must be followed by 'sampler'");
      next();
      return {Type::Sampler, ParamKind::TableSampler};
    }
    if (tok.text == "sampler") {
      next();
      return {Type::Sampler, ParamKind::Sampler};
    }
    if (tok.text == "__sample") {
      next();
      return {Type::Vec4, ParamKind::Sample};
    }
    if (tok.text == "__color") {
      next();
      return {Type::Vec4, ParamKind::Color};
    }
    Type t = valueType(tok.text);
    if (t == Type::Error) unsupportedType(tok);
    next();
    return {t, ParamKind::Value};
  }

  std::unique_ptr<FunctionDecl> function() {
    auto fn = std::make_unique<FunctionDecl>();
    fn->loc = peek().loc;
    if (isWord("kernel")) {
      fn->isKernel = true;
      next();
    }
    if (isWord("const")) fail(peek().loc, "global variables are not supported");
    TypeSpec ret = typeSpec();
    if (ret.kind != ParamKind::Value) fail(fn->loc, "a function cannot return '" + std::string(typeName(ret.type)) + "' of this kind");
    fn->returnType = ret.type;
    SourceLoc nameLoc = peek().loc;
    fn->name = identifier("a function name");
    if (!fn->isKernel) fn->loc = nameLoc;
    if (is("=") || is(";") || is(",") || is("["))
      fail(nameLoc, "global variables are not supported");
    expect("(", "after the function name");
    if (isWord("void") && is(")", 1)) {
      next();
    } else if (!is(")")) {
      do {
        auto p = std::make_unique<VarDecl>();
        p->loc = peek().loc;
        if (isWord("const")) {
          p->isConst = true;
          next();
        }
        if (isWord("in")) next();
        else if (isWord("out") || isWord("inout")) fail(peek().loc, "'" + peek().text + "' parameters are not supported");
        TypeSpec ts = typeSpec();
        if (ts.type == Type::Void) fail(p->loc, "a parameter cannot be void");
        p->type = ts.type;
        p->kind = ts.kind;
        p->loc = peek().loc;
        p->name = identifier("a parameter name");
        if (is("[")) fail(peek().loc, "arrays are not supported");
        fn->params.push_back(std::move(p));
        if (fn->params.size() > 64) fail(peek().loc, "too many parameters");
      } while (accept(","));
    }
    expect(")", "after the parameters");
    if (is(";")) fail(peek().loc, "function prototypes are not supported; define '" + fn->name + "' before its first use");
    if (!is("{")) fail(peek().loc, "expected '{' to begin the body of '" + fn->name + "', found " + describe(peek()));
    fn->body = block();
    return fn;
  }

  std::unique_ptr<Stmt> block() {
    DepthGuard guard(*this, peek().loc);
    auto s = std::make_unique<Stmt>(StmtKind::Block, peek().loc);
    expect("{", "");
    while (!is("}")) {
      if (peek().kind == Tok::End) fail(peek().loc, "expected '}' before end of text");
      s->body.push_back(statement());
    }
    next();
    return s;
  }

  bool startsDeclaration() const {
    if (isWord("const")) return true;
    const Token& tok = peek();
    if (tok.kind != Tok::Ident || !isTypeWord(tok.text)) return false;
    if (tok.text == "__table" || tok.text == "struct") return true;
    return peek(1).kind == Tok::Ident;
  }

  std::unique_ptr<Stmt> declaration() {
    auto s = std::make_unique<Stmt>(StmtKind::Decl, peek().loc);
    bool isConst = false;
    if (isWord("const")) {
      isConst = true;
      next();
    }
    TypeSpec ts = typeSpec();
    if (ts.kind == ParamKind::Sampler || ts.kind == ParamKind::TableSampler)
      fail(s->loc, "sampler variables can only be parameters");
    if (ts.kind == ParamKind::Sample || ts.kind == ParamKind::Color)
      fail(s->loc, "'__sample' and '__color' can only be kernel parameters");
    if (ts.type == Type::Void) fail(s->loc, "a variable cannot be void");
    do {
      auto v = std::make_unique<VarDecl>();
      v->loc = peek().loc;
      v->name = identifier("a variable name");
      v->type = ts.type;
      v->isConst = isConst;
      if (is("[")) fail(peek().loc, "arrays are not supported");
      std::unique_ptr<Expr> init;
      if (accept("=")) init = assignment();
      else if (isConst) fail(peek().loc, "const variable '" + v->name + "' needs an initialiser");
      s->vars.push_back(std::move(v));
      s->inits.push_back(std::move(init));
    } while (accept(","));
    expect(";", "after the declaration");
    return s;
  }

  std::unique_ptr<Stmt> statement() {
    DepthGuard guard(*this, peek().loc);
    const Token& tok = peek();
    SourceLoc loc = tok.loc;
    if (is("{")) return block();
    if (is(";")) {
      next();
      return std::make_unique<Stmt>(StmtKind::Empty, loc);
    }
    if (tok.kind == Tok::Ident) {
      const std::string& w = tok.text;
      if (w == "break" || w == "continue" || w == "discard") fail(loc, "'" + w + "' is not supported");
      if (w == "switch" || w == "goto" || w == "case" || w == "default") fail(loc, "'" + w + "' is not supported");
      if (w == "if") {
        next();
        auto s = std::make_unique<Stmt>(StmtKind::If, loc);
        expect("(", "after 'if'");
        s->expr = expression();
        expect(")", "after the condition");
        s->then = statement();
        if (isWord("else")) {
          next();
          s->otherwise = statement();
        }
        return s;
      }
      if (w == "for") {
        next();
        auto s = std::make_unique<Stmt>(StmtKind::For, loc);
        expect("(", "after 'for'");
        if (startsDeclaration()) {
          s->init = declaration();
        } else if (is(";")) {
          s->init = std::make_unique<Stmt>(StmtKind::Empty, peek().loc);
          next();
        } else {
          s->init = std::make_unique<Stmt>(StmtKind::Expr, peek().loc);
          s->init->expr = expression();
          expect(";", "after the loop initialiser");
        }
        if (!is(";")) s->expr = expression();
        expect(";", "after the loop condition");
        if (!is(")")) s->step = expression();
        expect(")", "after the loop step");
        s->then = statement();
        return s;
      }
      if (w == "while") {
        next();
        auto s = std::make_unique<Stmt>(StmtKind::While, loc);
        expect("(", "after 'while'");
        s->expr = expression();
        expect(")", "after the condition");
        s->then = statement();
        return s;
      }
      if (w == "do") {
        next();
        auto s = std::make_unique<Stmt>(StmtKind::DoWhile, loc);
        s->then = statement();
        if (!isWord("while")) fail(peek().loc, "expected 'while' after the body of 'do', found " + describe(peek()));
        next();
        expect("(", "after 'while'");
        s->expr = expression();
        expect(")", "after the condition");
        expect(";", "after 'do ... while (...)'");
        return s;
      }
      if (w == "return") {
        next();
        auto s = std::make_unique<Stmt>(StmtKind::Return, loc);
        if (!is(";")) s->expr = expression();
        expect(";", "after the return value");
        return s;
      }
      if (w == "else") fail(loc, "'else' without 'if'");
      if (w == "uniform" || w == "varying" || w == "attribute" || w == "precision") unsupportedType(tok);
      if (startsDeclaration()) return declaration();
    }
    auto s = std::make_unique<Stmt>(StmtKind::Expr, loc);
    s->expr = expression();
    expect(";", "after the expression");
    return s;
  }

  // ---- Expressions ----

  std::unique_ptr<Expr> make(ExprKind kind, SourceLoc loc, std::string name = {}) {
    auto e = std::make_unique<Expr>(kind, loc);
    e->name = std::move(name);
    return e;
  }
  void adopt(Expr& parent, std::unique_ptr<Expr> child) {
    parent.depth = std::max(parent.depth, child->depth + 1);
    if (parent.depth > kMaxExpressionDepth) fail(parent.loc, "expression is too deeply nested");
    parent.args.push_back(std::move(child));
  }

  std::unique_ptr<Expr> expression() {
    DepthGuard guard(*this, peek().loc);
    auto e = assignment();
    if (!is(",")) return e;
    auto comma = make(ExprKind::Comma, e->loc, ",");
    adopt(*comma, std::move(e));
    while (accept(",")) adopt(*comma, assignment());
    return comma;
  }

  std::unique_ptr<Expr> assignment() {
    auto lhs = conditional();
    const Token& tok = peek();
    if (tok.kind == Tok::Punct) {
      const std::string& op = tok.text;
      if (op == "=" || op == "+=" || op == "-=" || op == "*=" || op == "/=") {
        SourceLoc loc = tok.loc;
        next();
        auto e = make(ExprKind::Assign, loc, op);
        adopt(*e, std::move(lhs));
        DepthGuard guard(*this, loc);
        adopt(*e, assignment());
        return e;
      }
      if (op == "%=" || op == "<<=" || op == ">>=" || op == "&=" || op == "|=" || op == "^=")
        fail(tok.loc, "operator '" + op + "' is not supported");
    }
    return lhs;
  }

  std::unique_ptr<Expr> conditional() {
    auto c = binary(1);
    if (!is("?")) return c;
    SourceLoc loc = peek().loc;
    next();
    auto e = make(ExprKind::Ternary, loc, "?:");
    adopt(*e, std::move(c));
    adopt(*e, expression());
    expect(":", "in the conditional expression");
    DepthGuard guard(*this, loc);
    adopt(*e, assignment());
    return e;
  }

  static int precedence(const Token& tok) {
    if (tok.kind != Tok::Punct) return 0;
    static const std::pair<const char*, int> table[] = {
        {"||", 1}, {"^^", 2}, {"&&", 3}, {"|", 4},  {"^", 5},  {"&", 6},  {"==", 7}, {"!=", 7}, {"<", 8}, {">", 8},
        {"<=", 8}, {">=", 8}, {"<<", 9}, {">>", 9}, {"+", 10}, {"-", 10}, {"*", 11}, {"/", 11}, {"%", 11}};
    for (auto& [op, prec] : table)
      if (tok.text == op) return prec;
    return 0;
  }

  std::unique_ptr<Expr> binary(int minPrec) {
    auto lhs = unary();
    for (;;) {
      const Token& tok = peek();
      int prec = precedence(tok);
      if (prec == 0 || prec < minPrec) return lhs;
      std::string op = tok.text;
      if (op == "|" || op == "^" || op == "&" || op == "<<" || op == ">>" || op == "%")
        fail(tok.loc, "operator '" + op + "' is not supported");
      SourceLoc loc = tok.loc;
      next();
      DepthGuard guard(*this, loc);
      auto rhs = binary(prec + 1);
      auto e = make(ExprKind::Binary, loc, op);
      adopt(*e, std::move(lhs));
      adopt(*e, std::move(rhs));
      lhs = std::move(e);
    }
  }

  std::unique_ptr<Expr> unary() {
    const Token& tok = peek();
    if (tok.kind == Tok::Punct) {
      SourceLoc loc = tok.loc;
      if (tok.text == "++" || tok.text == "--") {
        auto e = make(ExprKind::PreIncDec, loc, tok.text);
        next();
        DepthGuard guard(*this, loc);
        adopt(*e, unary());
        return e;
      }
      if (tok.text == "+" || tok.text == "-" || tok.text == "!") {
        auto e = make(ExprKind::Unary, loc, tok.text);
        next();
        DepthGuard guard(*this, loc);
        adopt(*e, unary());
        return e;
      }
      if (tok.text == "~") fail(loc, "operator '~' is not supported");
    }
    return postfix();
  }

  std::unique_ptr<Expr> postfix() {
    auto e = primary();
    for (;;) {
      if (is(".")) {
        SourceLoc loc = peek().loc;
        next();
        const Token& f = peek();
        if (f.kind != Tok::Ident) fail(f.loc, "expected a component name after '.', found " + describe(f));
        auto field = make(ExprKind::Field, f.loc, f.text);
        (void)loc;
        next();
        adopt(*field, std::move(e));
        e = std::move(field);
      } else if (is("++") || is("--")) {
        auto p = make(ExprKind::PostIncDec, peek().loc, peek().text);
        next();
        adopt(*p, std::move(e));
        e = std::move(p);
      } else if (is("[")) {
        fail(peek().loc, "arrays and indexing are not supported");
      } else {
        return e;
      }
    }
  }

  std::unique_ptr<Expr> primary() {
    const Token& tok = peek();
    SourceLoc loc = tok.loc;
    switch (tok.kind) {
      case Tok::Int: {
        auto e = make(ExprKind::IntLit, loc, tok.text);
        e->number = tok.number;
        next();
        return e;
      }
      case Tok::Float: {
        auto e = make(ExprKind::FloatLit, loc, tok.text);
        e->number = tok.number;
        next();
        return e;
      }
      case Tok::Ident: {
        if (tok.text == "true" || tok.text == "false") {
          auto e = make(ExprKind::BoolLit, loc, tok.text);
          e->number = tok.text == "true" ? 1 : 0;
          next();
          return e;
        }
        bool typeWord = isTypeWord(tok.text);
        if (typeWord && !isValueTypeWord(tok.text)) unsupportedType(tok);
        if (!typeWord) {
          if (reservedWords().count(tok.text))
            fail(loc, "'" + tok.text + "' is not supported here");
          if (tok.text.rfind("gl_", 0) == 0) fail(loc, "names beginning with 'gl_' are reserved");
        }
        std::string name = tok.text;
        next();
        if (is("(")) {
          next();
          auto call = make(ExprKind::Call, loc, name);
          if (isWord("void") && is(")", 1)) next();
          if (!is(")")) {
            DepthGuard guard(*this, loc);
            do {
              adopt(*call, assignment());
              if (call->args.size() > 64) fail(peek().loc, "too many arguments");
            } while (accept(","));
          }
          expect(")", ("to close the call of '" + name + "'").c_str());
          return call;
        }
        if (typeWord) fail(loc, "expected '(' after the type '" + name + "'");
        return make(ExprKind::Ident, loc, name);
      }
      case Tok::Punct:
        if (tok.text == "(") {
          next();
          auto e = expression();
          expect(")", "to close the parenthesis");
          return e;
        }
        fail(loc, "expected an expression, found " + describe(tok));
      case Tok::End:
        fail(loc, "expected an expression, found end of text");
    }
    fail(loc, "expected an expression");
  }

  std::vector<Token> t_;
  std::size_t pos_ = 0;
  int depth_ = 0;
};

}  // namespace

std::unique_ptr<TranslationUnit> parse(const std::string& text) {
  if (text.size() > kMaxSourceBytes)
    throw CompileError{{1, 1}, "kernel text is too long (more than " + std::to_string(kMaxSourceBytes) + " bytes)"};
  if (text.find('\0') != std::string::npos) {
    // Report the position of the first NUL byte.
    SourceLoc loc;
    for (char c : text.substr(0, text.find('\0'))) {
      if (c == '\n') {
        ++loc.line;
        loc.column = 1;
      } else {
        ++loc.column;
      }
    }
    throw CompileError{loc, "unexpected character (byte 0)"};
  }
  Parser p(lex(text));
  return p.unit();
}

}  // namespace cikl
