// The type checker: resolves every name to its declaration, every call to a helper, a built-in
// or a constructor, checks operand types, swizzles, assignability, returns and loop bounds, and
// records what the lowering needs in the syntax tree.
#include <cmath>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>

#include "CoreImage/Kernel/AST.h"
#include "CoreImage/Kernel/BuiltinFunctions.h"

namespace cikl {

namespace {

struct BuiltinInfo {
  const char* name;
  // Signatures, tried in order. Letters: G genType (float or vecN, all G of one call alike),
  // F float, 2/3/4 vecN, S sampler, V vecN (n >= 2, all alike), B bvecN (all alike, same n as V),
  // b bool. The part after '>' is the result.
  std::vector<const char*> signatures;
};

const BuiltinInfo kBuiltins[] = {
    {"sample", {"S2>4"}},
    {"samplerCoord", {"S>2"}},
    {"samplerExtent", {"S>4"}},
    {"samplerOrigin", {"S>2"}},
    {"samplerSize", {"S>2"}},
    {"samplerTransform", {"S2>2"}},
    {"destCoord", {">2"}},
    {"premultiply", {"4>4"}},
    {"unpremultiply", {"4>4"}},
    {"compare", {"GGG>G"}},
    {"sin_", {"G>G"}},
    {"cos_", {"G>G"}},
    {"tan_", {"G>G"}},
    {"sincos", {"F>2"}},
    {"sincos_", {"F>2"}},
    {"cossin", {"F>2"}},
    {"cossin_", {"F>2"}},
    {"radians", {"G>G"}},
    {"degrees", {"G>G"}},
    {"sin", {"G>G"}},
    {"cos", {"G>G"}},
    {"tan", {"G>G"}},
    {"asin", {"G>G"}},
    {"acos", {"G>G"}},
    {"atan", {"G>G", "GG>G"}},
    {"pow", {"GG>G"}},
    {"exp", {"G>G"}},
    {"log", {"G>G"}},
    {"exp2", {"G>G"}},
    {"log2", {"G>G"}},
    {"sqrt", {"G>G"}},
    {"inversesqrt", {"G>G"}},
    {"abs", {"G>G"}},
    {"sign", {"G>G"}},
    {"floor", {"G>G"}},
    {"ceil", {"G>G"}},
    {"fract", {"G>G"}},
    {"mod", {"GG>G", "GF>G"}},
    {"min", {"GG>G", "GF>G"}},
    {"max", {"GG>G", "GF>G"}},
    {"clamp", {"GGG>G", "GFF>G"}},
    {"mix", {"GGG>G", "GGF>G"}},
    {"step", {"GG>G", "FG>G"}},
    {"smoothstep", {"GGG>G", "FFG>G"}},
    {"length", {"G>F"}},
    {"distance", {"GG>F"}},
    {"dot", {"GG>F"}},
    {"cross", {"33>3"}},
    {"normalize", {"G>G"}},
    {"faceforward", {"GGG>G"}},
    {"reflect", {"GG>G"}},
    {"lessThan", {"VV>B"}},
    {"lessThanEqual", {"VV>B"}},
    {"greaterThan", {"VV>B"}},
    {"greaterThanEqual", {"VV>B"}},
    {"equal", {"VV>B", "BB>B"}},
    {"notEqual", {"VV>B", "BB>B"}},
    {"any", {"B>b"}},
    {"all", {"B>b"}},
    {"not", {"B>B"}},
};
static_assert(sizeof(kBuiltins) / sizeof(kBuiltins[0]) == std::size_t(Builtin::Count));

const std::set<std::string>& unsupportedFunctions() {
  static const std::set<std::string> names = {
      "refract", "noise1", "noise2", "noise3", "noise4", "dFdx", "dFdy", "dfdx", "dfdy", "fwidth", "ftransform",
      "matrixCompMult", "texture1D", "texture2D", "texture3D", "textureCube", "texture2DProj", "texture2DRect",
      "shadow2D", "round", "trunc", "roundEven", "sinh", "cosh", "tanh", "asinh", "acosh", "atanh", "isnan",
      "isinf", "modf", "transpose", "inverse", "determinant", "outerProduct"};
  return names;
}

std::string typeList(const std::vector<std::unique_ptr<Expr>>& args) {
  std::string s = "(";
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (i) s += ", ";
    s += typeName(args[i]->type);
  }
  return s + ")";
}

[[noreturn]] void fail(SourceLoc loc, std::string message) { throw CompileError{loc, std::move(message)}; }

// Where an expression begins in the text (operators and selectors sit after their first operand).
SourceLoc startOf(const Expr& e) {
  switch (e.kind) {
    case ExprKind::Binary:
    case ExprKind::Field:
    case ExprKind::PostIncDec:
    case ExprKind::Ternary:
    case ExprKind::Assign:
    case ExprKind::Comma:
      return startOf(*e.args[0]);
    default:
      return e.loc;
  }
}

// Constant value of an expression made only of literals and operators, if it has one.
std::optional<double> constantValue(const Expr& e) {
  switch (e.kind) {
    case ExprKind::IntLit:
    case ExprKind::FloatLit:
    case ExprKind::BoolLit:
      return e.number;
    case ExprKind::Unary: {
      auto v = constantValue(*e.args[0]);
      if (!v) return v;
      if (e.name == "-") return -*v;
      if (e.name == "!") return *v == 0 ? 1.0 : 0.0;
      return v;
    }
    case ExprKind::Binary: {
      auto a = constantValue(*e.args[0]);
      auto b = constantValue(*e.args[1]);
      if (!a || !b) return std::nullopt;
      const std::string& op = e.name;
      if (op == "+") return *a + *b;
      if (op == "-") return *a - *b;
      if (op == "*") return *a * *b;
      if (op == "/") {
        if (*b == 0) return std::nullopt;
        return e.type == Type::Int ? std::trunc(*a / *b) : *a / *b;
      }
      if (op == "<") return double(*a < *b);
      if (op == ">") return double(*a > *b);
      if (op == "<=") return double(*a <= *b);
      if (op == ">=") return double(*a >= *b);
      if (op == "==") return double(*a == *b);
      if (op == "!=") return double(*a != *b);
      if (op == "&&") return double(*a != 0 && *b != 0);
      if (op == "||") return double(*a != 0 || *b != 0);
      return std::nullopt;
    }
    default:
      return std::nullopt;
  }
}

bool containsReturn(const Stmt& s) {
  if (s.kind == StmtKind::Return) return true;
  for (auto& b : s.body)
    if (containsReturn(*b)) return true;
  if (s.init && containsReturn(*s.init)) return true;
  if (s.then && containsReturn(*s.then)) return true;
  if (s.otherwise && containsReturn(*s.otherwise)) return true;
  return false;
}

void collectAssigned(const Expr& e, std::set<const VarDecl*>& out) {
  if (e.kind == ExprKind::Assign || e.kind == ExprKind::PreIncDec || e.kind == ExprKind::PostIncDec) {
    const Expr* target = e.args[0].get();
    while (target->kind == ExprKind::Field) target = target->args[0].get();
    if (target->var) out.insert(target->var);
  }
  for (auto& a : e.args) collectAssigned(*a, out);
}

void collectAssigned(const Stmt& s, std::set<const VarDecl*>& out) {
  if (s.expr) collectAssigned(*s.expr, out);
  if (s.step) collectAssigned(*s.step, out);
  for (auto& i : s.inits)
    if (i) collectAssigned(*i, out);
  for (auto& b : s.body) collectAssigned(*b, out);
  if (s.init) collectAssigned(*s.init, out);
  if (s.then) collectAssigned(*s.then, out);
  if (s.otherwise) collectAssigned(*s.otherwise, out);
}

bool alwaysReturns(const Stmt& s) {
  switch (s.kind) {
    case StmtKind::Return:
      return true;
    case StmtKind::Block:
      for (auto& b : s.body)
        if (alwaysReturns(*b)) return true;
      return false;
    case StmtKind::If:
      return s.otherwise && alwaysReturns(*s.then) && alwaysReturns(*s.otherwise);
    case StmtKind::DoWhile:
      return alwaysReturns(*s.then);
    default:
      return false;
  }
}

class Checker {
 public:
  void run(TranslationUnit& unit) {
    for (auto& fn : unit.functions) function(*fn);
  }

 private:
  using Scope = std::unordered_map<std::string, const VarDecl*>;

  // ---- Functions ----

  void function(FunctionDecl& fn) {
    if (builtinByName(fn.name) >= 0) fail(fn.loc, "'" + fn.name + "' is a built-in function and cannot be redefined");
    if (unsupportedFunctions().count(fn.name)) fail(fn.loc, "'" + fn.name + "' is a reserved function name");
    if (fn.isKernel && fn.returnType != Type::Vec4)
      fail(fn.loc, "a kernel routine must return vec4, not " + std::string(typeName(fn.returnType)));
    for (auto& p : fn.params) {
      if (fn.isKernel) {
        bool ok = p->kind != ParamKind::Value || p->type == Type::Float || p->type == Type::Vec2 ||
                  p->type == Type::Vec3 || p->type == Type::Vec4;
        if (!ok) fail(p->loc, "kernel parameter '" + p->name + "' cannot be of type " + typeName(p->type));
      } else if (p->kind == ParamKind::Sample || p->kind == ParamKind::Color) {
        fail(p->loc, "'__sample' and '__color' parameters are only allowed on kernel routines");
      }
    }
    auto& overloads = functions_[fn.name];
    for (const FunctionDecl* other : overloads) {
      bool same = other->params.size() == fn.params.size();
      for (std::size_t i = 0; same && i < fn.params.size(); ++i) same = other->params[i]->type == fn.params[i]->type;
      if (same) fail(fn.loc, "redefinition of '" + fn.name + "'");
    }
    overloads.push_back(&fn);

    current_ = &fn;
    scopes_.clear();
    scopes_.emplace_back();
    for (auto& p : fn.params) declare(*p);
    // The body's top-level names share the parameters' scope.
    for (auto& s : fn.body->body) statement(*s);
    if (fn.returnType != Type::Void && !alwaysReturns(*fn.body))
      fail(fn.loc, "'" + fn.name + "' does not return a value on every path");
    scopes_.clear();
    current_ = nullptr;
  }

  void declare(const VarDecl& v) {
    auto& scope = scopes_.back();
    if (scope.count(v.name)) fail(v.loc, "redefinition of '" + v.name + "'");
    scope[v.name] = &v;
  }

  const VarDecl* lookup(const std::string& name) const {
    for (auto it = scopes_.rbegin(); it != scopes_.rend(); ++it) {
      auto f = it->find(name);
      if (f != it->end()) return f->second;
    }
    return nullptr;
  }

  // ---- Statements ----

  void statement(Stmt& s) {
    switch (s.kind) {
      case StmtKind::Empty:
        return;
      case StmtKind::Block:
        scopes_.emplace_back();
        for (auto& b : s.body) statement(*b);
        scopes_.pop_back();
        return;
      case StmtKind::Decl:
        for (std::size_t i = 0; i < s.vars.size(); ++i) {
          VarDecl& v = *s.vars[i];
          if (s.inits[i]) {
            expr(*s.inits[i]);
            if (!coerce(*s.inits[i], v.type))
              fail(startOf(*s.inits[i]), "cannot initialise " + std::string(typeName(v.type)) + " '" + v.name + "' with a value of type " +
                                        typeName(s.inits[i]->type));
          }
          declare(v);
        }
        return;
      case StmtKind::Expr:
        expr(*s.expr);
        return;
      case StmtKind::If:
        condition(*s.expr, "if");
        scoped(*s.then);
        if (s.otherwise) scoped(*s.otherwise);
        return;
      case StmtKind::For:
        scopes_.emplace_back();
        statement(*s.init);
        if (s.expr) condition(*s.expr, "for");
        if (s.step) expr(*s.step);
        scoped(*s.then);
        scopes_.pop_back();
        loopBound(s);
        return;
      case StmtKind::While:
        condition(*s.expr, "while");
        scoped(*s.then);
        loopBound(s);
        return;
      case StmtKind::DoWhile:
        scoped(*s.then);
        condition(*s.expr, "do-while");
        loopBound(s);
        return;
      case StmtKind::Return: {
        Type want = current_->returnType;
        if (!s.expr) {
          if (want != Type::Void) fail(s.loc, "'" + current_->name + "' must return a value of type " + typeName(want));
          return;
        }
        expr(*s.expr);
        if (want == Type::Void) fail(startOf(*s.expr), "'" + current_->name + "' returns void and cannot return a value");
        if (!coerce(*s.expr, want))
 fail(startOf(*s.expr), "'" + current_->name + "' must return " + typeName(want) + ", not " + typeName(s.expr->type));
        return;
      }
    }
  }

  void scoped(Stmt& s) {
    scopes_.emplace_back();
    statement(s);
    scopes_.pop_back();
  }

  void condition(Expr& e, const char* what) {
    expr(e);
    if (e.type != Type::Bool)
      fail(startOf(e), std::string("the condition of '") + what + "' must be bool, not " + typeName(e.type));
  }

  // Rejects loops whose trip count is known when compiling and exceeds the limit, and loops
  // that can never end.
  void loopBound(const Stmt& s) {
    const std::string limit = std::to_string(kMaxLoopIterations);
    const bool alwaysTrue = !s.expr || constantValue(*s.expr).value_or(0) != 0;
    if (alwaysTrue && !containsReturn(*s.then))
      fail(s.expr ? s.expr->loc : s.loc, "the loop condition is always true: the loop would never end");
    if (s.kind != StmtKind::For || !s.expr || !s.step) return;
    // for (counter = c0; counter OP c1; counter += c2) with the counter left alone in the body.
    const VarDecl* counter = nullptr;
    std::optional<double> start;
    if (s.init->kind == StmtKind::Decl && s.init->vars.size() == 1 && s.init->inits[0]) {
      counter = s.init->vars[0].get();
      start = constantValue(*s.init->inits[0]);
    } else if (s.init->kind == StmtKind::Expr && s.init->expr->kind == ExprKind::Assign && s.init->expr->name == "=" &&
               s.init->expr->args[0]->kind == ExprKind::Ident) {
      counter = s.init->expr->args[0]->var;
      start = constantValue(*s.init->expr->args[1]);
    }
    if (!counter || !start) return;
    const Expr& c = *s.expr;
    if (c.kind != ExprKind::Binary) return;
    std::string op = c.name;
    std::optional<double> bound;
    if (c.args[0]->kind == ExprKind::Ident && c.args[0]->var == counter) {
      bound = constantValue(*c.args[1]);
    } else if (c.args[1]->kind == ExprKind::Ident && c.args[1]->var == counter) {
      bound = constantValue(*c.args[0]);
      if (op == "<") op = ">";
      else if (op == ">") op = "<";
      else if (op == "<=") op = ">=";
      else if (op == ">=") op = "<=";
    }
    if (!bound) return;
    const Expr& st = *s.step;
    std::optional<double> delta;
    auto isCounter = [&](const Expr& e) { return e.kind == ExprKind::Ident && e.var == counter; };
    if ((st.kind == ExprKind::PreIncDec || st.kind == ExprKind::PostIncDec) && isCounter(*st.args[0])) {
      delta = st.name == "++" ? 1.0 : -1.0;
    } else if (st.kind == ExprKind::Assign && isCounter(*st.args[0]) && (st.name == "+=" || st.name == "-=")) {
      auto d = constantValue(*st.args[1]);
      if (d) delta = st.name == "+=" ? *d : -*d;
    }
    if (!delta) return;
    std::set<const VarDecl*> assigned;
    collectAssigned(*s.then, assigned);
    if (assigned.count(counter)) return;
    const bool isInt = counter->type == Type::Int;
    double v = *start;
    auto holds = [&](double x) {
      if (op == "<") return x < *bound;
      if (op == ">") return x > *bound;
      if (op == "<=") return x <= *bound;
      if (op == ">=") return x >= *bound;
      if (op == "!=") return x != *bound;
      if (op == "==") return x == *bound;
      return false;
    };
    for (int n = 0; holds(v); ++n) {
      if (n >= kMaxLoopIterations) fail(s.loc, "the loop runs more than " + limit + " times");
      v = isInt ? v + *delta : double(float(v) + float(*delta));
    }
  }

  // ---- Expressions ----

  // Makes `e` usable where a `want` is expected (an int scalar converts to float).
  static bool coerce(Expr& e, Type want) {
    if (e.type == want) return true;
    if (e.type == Type::Int && want == Type::Float) {
      e.toFloat = true;
      return true;
    }
    return false;
  }

  static Type promoted(const Expr& e) { return e.type == Type::Int ? Type::Float : e.type; }

  [[noreturn]] void mismatch(const Expr& e, const Expr& a, const Expr& b) {
    fail(e.loc, "operator '" + e.name + "' cannot be applied to " + typeName(a.type) + " and " + typeName(b.type));
  }

  void expr(Expr& e) {
    switch (e.kind) {
      case ExprKind::IntLit:
        e.type = Type::Int;
        return;
      case ExprKind::FloatLit:
        e.type = Type::Float;
        return;
      case ExprKind::BoolLit:
        e.type = Type::Bool;
        return;
      case ExprKind::Ident: {
        const VarDecl* v = lookup(e.name);
        if (!v) {
          if (builtinByName(e.name) >= 0 || functions_.count(e.name))
            fail(e.loc, "'" + e.name + "' is a function; call it with '(...)'");
          fail(e.loc, "unknown identifier '" + e.name + "'");
        }
        e.var = v;
        e.type = v->type;
        return;
      }
      case ExprKind::Comma:
        for (auto& a : e.args) expr(*a);
        e.type = e.args.back()->type;
        return;
      case ExprKind::Unary: {
        Expr& a = *e.args[0];
        expr(a);
        if (e.name == "!") {
          if (a.type != Type::Bool) fail(e.loc, "operator '!' needs a bool operand, not " + std::string(typeName(a.type)));
          e.type = Type::Bool;
        } else {
          if (!isNumeric(a.type)) fail(e.loc, "operator '" + e.name + "' cannot be applied to " + typeName(a.type));
          e.type = a.type;
        }
        return;
      }
      case ExprKind::PreIncDec:
      case ExprKind::PostIncDec: {
        Expr& a = *e.args[0];
        expr(a);
        if (!isNumeric(a.type)) fail(e.loc, "operator '" + e.name + "' cannot be applied to " + typeName(a.type));
        lvalue(a);
        e.type = a.type;
        return;
      }
      case ExprKind::Binary:
        binary(e);
        return;
      case ExprKind::Assign: {
        Expr& lhs = *e.args[0];
        Expr& rhs = *e.args[1];
        expr(lhs);
        expr(rhs);
        lvalue(lhs);
        if (e.name == "=") {
          if (!coerce(rhs, lhs.type))
            fail(e.loc, "cannot assign a value of type " + std::string(typeName(rhs.type)) + " to " + typeName(lhs.type));
        } else {
          Type r = arithmeticType(e, lhs, rhs);
          if (r != lhs.type)
            fail(e.loc, "operator '" + e.name + "' cannot store a " + typeName(r) + " result in " + typeName(lhs.type));
        }
        e.type = lhs.type;
        return;
      }
      case ExprKind::Ternary: {
        Expr& c = *e.args[0];
        Expr& a = *e.args[1];
        Expr& b = *e.args[2];
        expr(c);
        expr(a);
        expr(b);
        if (c.type != Type::Bool) fail(startOf(c), "the condition of '?:' must be bool, not " + std::string(typeName(c.type)));
        if (a.type == Type::Sampler || b.type == Type::Sampler) fail(e.loc, "'?:' cannot choose between samplers");
        if (a.type == Type::Void || b.type == Type::Void) fail(e.loc, "'?:' cannot choose between void values");
        if (a.type != b.type) {
          if (promoted(a) == promoted(b)) {
            coerce(a, Type::Float);
            coerce(b, Type::Float);
          } else {
            fail(e.loc, "the branches of '?:' have different types: " + std::string(typeName(a.type)) + " and " + typeName(b.type));
          }
        }
        e.type = a.type == Type::Int && !a.toFloat ? Type::Int : promoted(a);
        return;
      }
      case ExprKind::Field:
        field(e);
        return;
      case ExprKind::Call:
        call(e);
        return;
    }
  }

  void lvalue(const Expr& e) {
    if (e.kind == ExprKind::Ident) {
      const VarDecl* v = e.var;
      if (v->isConst) fail(e.loc, "cannot assign to const variable '" + v->name + "'");
      if (v->type == Type::Sampler) fail(e.loc, "cannot assign to sampler '" + v->name + "'");
      if (v->kind != ParamKind::Value || isKernelParam(v)) fail(e.loc, "cannot assign to kernel parameter '" + v->name + "'");
      return;
    }
    if (e.kind == ExprKind::Field) {
      for (int i = 0; i < e.swizzleLength; ++i)
        for (int j = 0; j < i; ++j)
          if (e.swizzle[i] == e.swizzle[j]) fail(e.loc, "swizzle '." + e.name + "' repeats a component and cannot be assigned to");
      lvalue(*e.args[0]);
      return;
    }
    fail(e.loc, "expression is not assignable");
  }

  bool isKernelParam(const VarDecl* v) const {
    if (!current_ || !current_->isKernel) return false;
    for (auto& p : current_->params)
      if (p.get() == v) return true;
    return false;
  }

  // Result type of + - * / on a and b (converting int operands mixed with floats).
  Type arithmeticType(const Expr& e, Expr& a, Expr& b) {
    std::string op = e.name;
    if (op.size() == 2 && op[1] == '=') op = op.substr(0, 1);
    if (!isNumeric(a.type) || !isNumeric(b.type)) {
      fail(e.loc, "operator '" + op + "' cannot be applied to " + typeName(a.type) + " and " + typeName(b.type));
    }
    if (a.type == Type::Int && b.type == Type::Int) return Type::Int;
    Type ta = promoted(a), tb = promoted(b);
    if (ta == tb || tb == Type::Float || ta == Type::Float) {
      if (a.type == Type::Int) a.toFloat = true;
      if (b.type == Type::Int) b.toFloat = true;
      return ta == Type::Float ? tb : ta;
    }
    fail(e.loc, "operator '" + op + "' cannot be applied to " + typeName(a.type) + " and " + typeName(b.type));
  }

  void binary(Expr& e) {
    Expr& a = *e.args[0];
    Expr& b = *e.args[1];
    expr(a);
    expr(b);
    const std::string& op = e.name;
    if (op == "+" || op == "-" || op == "*" || op == "/") {
      e.type = arithmeticType(e, a, b);
    } else if (op == "<" || op == ">" || op == "<=" || op == ">=") {
      if (componentCount(a.type) != 1 || componentCount(b.type) != 1 || !isNumeric(a.type) || !isNumeric(b.type)) {
        if (componentCount(a.type) > 1 || componentCount(b.type) > 1)
          fail(e.loc, "operator '" + op + "' compares scalars only; use lessThan() and its relatives for vectors");
        mismatch(e, a, b);
      }
      if (a.type != b.type) {
        coerce(a, Type::Float);
        coerce(b, Type::Float);
      }
      e.type = Type::Bool;
    } else if (op == "==" || op == "!=") {
      if (a.type == Type::Sampler || b.type == Type::Sampler || a.type == Type::Void || b.type == Type::Void) mismatch(e, a, b);
      if (a.type != b.type) {
        if (promoted(a) != promoted(b)) mismatch(e, a, b);
        coerce(a, Type::Float);
        coerce(b, Type::Float);
      }
      e.type = Type::Bool;
    } else {  // && || ^^
      if (a.type != Type::Bool || b.type != Type::Bool) mismatch(e, a, b);
      e.type = Type::Bool;
    }
  }

  void field(Expr& e) {
    Expr& base = *e.args[0];
    expr(base);
    int n = componentCount(base.type);
    if (n < 2) fail(e.loc, "'." + e.name + "' cannot be applied to " + typeName(base.type));
    static const char* const sets[] = {"xyzw", "rgba", "stpq"};
    const std::string& s = e.name;
    if (s.empty() || s.size() > 4) fail(e.loc, "invalid swizzle '." + s + "'");
    int set = -1;
    for (int k = 0; k < 3; ++k)
      if (std::string(sets[k]).find(s[0]) != std::string::npos) set = k;
    if (set < 0) fail(e.loc, "invalid swizzle '." + s + "'");
    for (std::size_t i = 0; i < s.size(); ++i) {
      auto pos = std::string(sets[set]).find(s[i]);
      if (pos == std::string::npos) {
        for (int k = 0; k < 3; ++k)
          if (std::string(sets[k]).find(s[i]) != std::string::npos)
            fail(e.loc, "swizzle '." + s + "' mixes component sets");
        fail(e.loc, "invalid swizzle '." + s + "'");
      }
      if (int(pos) >= n)
        fail(e.loc, "swizzle component '" + std::string(1, s[i]) + "' is out of range for " + typeName(base.type));
      e.swizzle[i] = int(pos);
    }
    e.swizzleLength = int(s.size());
    e.type = vectorOf(scalarOf(base.type), e.swizzleLength);
  }

  void call(Expr& e) {
    for (auto& a : e.args) expr(*a);
    static const std::map<std::string, Type> ctors = {
        {"float", Type::Float}, {"int", Type::Int},     {"bool", Type::Bool},    {"vec2", Type::Vec2},  {"vec3", Type::Vec3},
        {"vec4", Type::Vec4},   {"bvec2", Type::BVec2}, {"bvec3", Type::BVec3}, {"bvec4", Type::BVec4}};
    if (auto c = ctors.find(e.name); c != ctors.end()) return constructor(e, c->second);
    if (e.name == "void") fail(e.loc, "'void' cannot be constructed");
    int b = builtinByName(e.name);
    if (b >= 0) return builtin(e, b);
    if (unsupportedFunctions().count(e.name)) fail(e.loc, "built-in function '" + e.name + "' is not supported");
    auto f = functions_.find(e.name);
    if (f == functions_.end()) fail(e.loc, "unknown function '" + e.name + "'");
    const FunctionDecl* exact = nullptr;
    std::vector<const FunctionDecl*> converting;
    bool countMatches = false;
    for (const FunctionDecl* fn : f->second) {
      if (fn->params.size() != e.args.size()) continue;
      countMatches = true;
      bool ok = true, conv = false;
      for (std::size_t i = 0; ok && i < e.args.size(); ++i) {
        Type want = fn->params[i]->type, have = e.args[i]->type;
        if (want == have) continue;
        if (want == Type::Float && have == Type::Int) conv = true;
        else ok = false;
      }
      if (!ok) continue;
      if (!conv) exact = fn;
      else converting.push_back(fn);
    }
    if (!countMatches)
      fail(e.loc, "wrong number of arguments to '" + e.name + "': " + std::to_string(e.args.size()) + " given");
    if (!exact) {
      if (converting.empty()) fail(e.loc, "no version of '" + e.name + "' takes arguments " + typeList(e.args));
      if (converting.size() > 1) fail(e.loc, "call of '" + e.name + "' with arguments " + typeList(e.args) + " is ambiguous");
      exact = converting[0];
    }
    if (exact == current_) fail(e.loc, "recursion is not allowed ('" + e.name + "' calls itself)");
    for (std::size_t i = 0; i < e.args.size(); ++i) coerce(*e.args[i], exact->params[i]->type);
    if (exact->isKernel) fail(e.loc, "kernel routine '" + e.name + "' cannot be called; remove 'kernel' to make it a helper");
    e.callee = exact;
    e.type = exact->returnType;
  }

  void constructor(Expr& e, Type target) {
    int n = componentCount(target);
    if (e.args.empty()) fail(e.loc, std::string("constructor of ") + typeName(target) + " needs arguments");
    for (auto& a : e.args)
      if (componentCount(a->type) == 0)
        fail(a->loc, std::string("cannot construct ") + typeName(target) + " from a value of type " + typeName(a->type));
    if (n == 1) {
      if (e.args.size() != 1) fail(e.loc, std::string("constructor of ") + typeName(target) + " takes one argument");
    } else if (!(e.args.size() == 1 && componentCount(e.args[0]->type) == 1)) {
      int total = 0;
      for (std::size_t i = 0; i < e.args.size(); ++i) {
        if (total >= n) fail(e.args[i]->loc, std::string("too many arguments to the constructor of ") + typeName(target));
        total += componentCount(e.args[i]->type);
      }
      if (total < n) fail(e.loc, std::string("too few components for the constructor of ") + typeName(target));
    }
    e.constructs = target;
    e.type = target;
  }

  void builtin(Expr& e, int id) {
    const BuiltinInfo& info = kBuiltins[id];
    bool countMatches = false;
    for (const char* sig : info.signatures) {
      std::string s = sig;
      auto arrow = s.find('>');
      std::string params = s.substr(0, arrow), result = s.substr(arrow + 1);
      if (params.size() != e.args.size()) continue;
      countMatches = true;
      Type g = Type::Error;
      int vn = 0;
      bool ok = true;
      for (std::size_t i = 0; ok && i < params.size(); ++i) {
        Type have = e.args[i]->type;
        Type p = have == Type::Int ? Type::Float : have;
        switch (params[i]) {
          case 'G':
            if (scalarOf(p) != Type::Float) ok = false;
            else if (g == Type::Error) g = p;
            else ok = g == p;
            break;
          case 'F': ok = p == Type::Float; break;
          case '2': ok = have == Type::Vec2; break;
          case '3': ok = have == Type::Vec3; break;
          case '4': ok = have == Type::Vec4; break;
          case 'S': ok = have == Type::Sampler; break;
          case 'V':
          case 'B': {
            Type want = params[i] == 'V' ? Type::Float : Type::Bool;
            int n = componentCount(have);
            ok = scalarOf(have) == want && n >= 2 && (vn == 0 || vn == n);
            vn = n;
            break;
          }
          default: ok = false;
        }
      }
      if (!ok) continue;
      for (std::size_t i = 0; i < params.size(); ++i)
        if (params[i] == 'G' || params[i] == 'F') coerce(*e.args[i], scalarOf(e.args[i]->type) == Type::Int ? Type::Float : e.args[i]->type);
      switch (result[0]) {
        case 'G': e.type = g; break;
        case 'F': e.type = Type::Float; break;
        case '2': e.type = Type::Vec2; break;
        case '3': e.type = Type::Vec3; break;
        case '4': e.type = Type::Vec4; break;
        case 'B': e.type = vectorOf(Type::Bool, vn); break;
        case 'b': e.type = Type::Bool; break;
      }
      e.builtin = id;
      return;
    }
    if (!countMatches) {
      std::string counts;
      for (const char* sig : info.signatures) {
        std::string n = std::to_string(std::string(sig).find('>'));
        if (counts.find(n) == std::string::npos) counts += (counts.empty() ? "" : " or ") + n;
      }
      fail(e.loc, "wrong number of arguments to '" + e.name + "': expected " + counts + ", got " + std::to_string(e.args.size()));
    }
    fail(e.loc, "no version of built-in '" + e.name + "' takes arguments " + typeList(e.args));
  }

  std::unordered_map<std::string, std::vector<const FunctionDecl*>> functions_;
  std::vector<Scope> scopes_;
  const FunctionDecl* current_ = nullptr;
};

}  // namespace

int builtinByName(const std::string& name) {
  static const std::unordered_map<std::string, int> table = [] {
    std::unordered_map<std::string, int> t;
    for (int i = 0; i < int(Builtin::Count); ++i) t[kBuiltins[i].name] = i;
    return t;
  }();
  auto it = table.find(name);
  return it == table.end() ? -1 : it->second;
}

const char* builtinName(Builtin b) { return kBuiltins[int(b)].name; }

void check(TranslationUnit& unit) { Checker().run(unit); }

}  // namespace cikl
