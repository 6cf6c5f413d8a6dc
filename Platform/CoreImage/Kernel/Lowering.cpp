// Lowering of a checked kernel routine to the IR. Helpers are inlined at each call. Variables
// live in registers bound by name: straight-line code rebinds a variable to the register of its
// new value, a conditional evaluates both sides and merges changed variables with selects, a
// loop copies the variables it changes into loop registers that are updated under the loop mask.
// Returns under a condition are gathered into a result under a "returned" mask. Afterwards dead
// instructions are dropped and work that is the same for every pixel moves to the prologue.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <numbers>
#include <set>
#include <sstream>
#include <unordered_map>

#include "CoreImage/Kernel/BuiltinFunctions.h"
#include "CoreImage/Kernel/IR.h"

namespace cikl {

namespace {

constexpr int kMaxRegisters = 1 << 16;
constexpr std::size_t kMaxInstructions = 1 << 18;

struct Val {
  int r[4] = {-1, -1, -1, -1};
  int n = 0;
  int sampler = -1;  // input index when the value is a sampler
  int at(int i) const { return n == 1 ? r[0] : r[i]; }
};

struct Frame {
  std::unordered_map<const VarDecl*, Val> vars;
  int exec = -1;     // execution mask, -1: every lane
  int retMask = -1;  // lanes that have returned; -1 when only a final return exists
  Val retVal;
  bool done = false;  // every lane has returned
};

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

int countReturns(const Stmt& s) {
  int n = s.kind == StmtKind::Return ? 1 : 0;
  for (auto& b : s.body) n += countReturns(*b);
  if (s.init) n += countReturns(*s.init);
  if (s.then) n += countReturns(*s.then);
  if (s.otherwise) n += countReturns(*s.otherwise);
  return n;
}

// True when the function's only return is the last statement of its body.
bool onlyFinalReturn(const FunctionDecl& fn) {
  const auto& body = fn.body->body;
  if (body.empty() || body.back()->kind != StmtKind::Return) return countReturns(*fn.body) == 0;
  return countReturns(*fn.body) == 1;
}

bool isPure(Op op) {
  switch (op) {
    case Op::Const:
    case Op::Param:
    case Op::SamplerInfo:
    case Op::DestX:
    case Op::DestY:
    case Op::Sample:
    case Op::SampleAtDest:
    case Op::LoopHead:
    case Op::BranchIfNone:
    case Op::LoopBack:
      return false;
    default:
      return true;
  }
}

class Lowerer {
 public:
  Lowerer(Program& p, const FunctionDecl& kernel) : p_(p), kernel_(kernel) {}

  void run() {
    // Inputs and parameter floats, in parameter order.
    for (auto& param : kernel_.params) {
      KernelParam kp;
      kp.name = param->name;
      kp.kind = param->kind;
      kp.type = param->type;
      if (param->kind == ParamKind::Sampler || param->kind == ParamKind::TableSampler || param->kind == ParamKind::Sample) {
        kp.input = p_.inputCount++;
      } else {
        kp.firstFloat = p_.floatCount;
        p_.floatCount += componentCount(param->type);
      }
      p_.params.push_back(kp);
    }
    destX_ = emit(Op::DestX);
    destY_ = emit(Op::DestY);
    Frame frame;
    for (std::size_t i = 0; i < kernel_.params.size(); ++i) {
      const VarDecl* param = kernel_.params[i].get();
      const KernelParam& kp = p_.params[i];
      Val v;
      switch (param->kind) {
        case ParamKind::Sampler:
        case ParamKind::TableSampler:
          v.sampler = kp.input;
          break;
        case ParamKind::Sample: {
          v = vec4Sample(Op::SampleAtDest, kp.input, -1, -1);
          break;
        }
        default:
          v.n = componentCount(param->type);
          for (int c = 0; c < v.n; ++c) v.r[c] = prologue(Op::Param, -1, -1, 0, kp.firstFloat + c);
      }
      frame.vars[param] = v;
    }
    Val result = inlineBody(kernel_, frame);
    for (int c = 0; c < 4; ++c) p_.result[c] = result.r[c];
    finish();
  }

 private:
  // ---- Emission ----

  int newReg(bool isMutable = false) {
    if (p_.registerCount >= kMaxRegisters) tooLarge();
    mutable_.push_back(isMutable);
    return p_.registerCount++;
  }
  [[noreturn]] void tooLarge() { throw CompileError{kernel_.loc, "kernel '" + kernel_.name + "' is too large"}; }

  int emitTo(int dst, Op op, int a = -1, int b = -1, int c = -1, float imm = 0, int aux = 0) {
    if (p_.body.size() >= kMaxInstructions) tooLarge();
    p_.body.push_back({op, dst, a, b, c, imm, aux});
    return dst;
  }
  int emit(Op op, int a = -1, int b = -1, int c = -1, float imm = 0, int aux = 0) {
    return emitTo(newReg(), op, a, b, c, imm, aux);
  }
  int prologue(Op op, int a, int b, float imm, int aux) {
    if (op == Op::Const) {
      std::uint32_t bits;
      std::memcpy(&bits, &imm, sizeof bits);
      auto it = constants_.find(bits);
      if (it != constants_.end()) return it->second;
      int r = newReg();
      p_.prologue.push_back({op, r, a, b, -1, imm, aux});
      constants_[bits] = r;
      return r;
    }
    int r = newReg();
    p_.prologue.push_back({op, r, a, b, -1, imm, aux});
    return r;
  }
  int konst(float v) { return prologue(Op::Const, -1, -1, v, 0); }

  Val vec4Sample(Op op, int input, int x, int y) {
    if (p_.registerCount + 4 > kMaxRegisters) tooLarge();
    int first = p_.registerCount;
    for (int c = 0; c < 4; ++c) newReg();
    emitTo(first, op, x, y, -1, 0, input);
    Val v;
    v.n = 4;
    for (int c = 0; c < 4; ++c) v.r[c] = first + c;
    return v;
  }

  static Val scalar(int r) {
    Val v;
    v.n = 1;
    v.r[0] = r;
    return v;
  }

  // Component-wise op over one, two or three values, broadcasting scalars.
  Val map(Op op, const Val& a, const Val* b = nullptr, const Val* c = nullptr) {
    int n = std::max({a.n, b ? b->n : 0, c ? c->n : 0});
    Val out;
    out.n = n;
    for (int i = 0; i < n; ++i)
      out.r[i] = emit(op, a.at(i), b ? b->at(i) : -1, c ? c->at(i) : -1);
    return out;
  }
  Val map2(Op op, const Val& a, const Val& b) { return map(op, a, &b); }
  Val map3(Op op, const Val& a, const Val& b, const Val& c) { return map(op, a, &b, &c); }

  int dotRegs(const Val& a, const Val& b) {
    int sum = emit(Op::Mul, a.at(0), b.at(0));
    for (int i = 1; i < std::max(a.n, b.n); ++i) sum = emit(Op::Add, sum, emit(Op::Mul, a.at(i), b.at(i)));
    return sum;
  }

  int andMask(int a, int b) {
    if (a < 0) return b;
    if (b < 0) return a;
    return emit(Op::And, a, b);
  }

  // ---- Functions ----

  Val inlineBody(const FunctionDecl& fn, Frame& frame) {
    if (++inlineDepth_ > 64) tooLarge();
    if (!onlyFinalReturn(fn) && fn.returnType != Type::Void) {
      frame.retMask = mutableCopy(konst(0));
      frame.retVal.n = componentCount(fn.returnType);
      for (int c = 0; c < frame.retVal.n; ++c) frame.retVal.r[c] = mutableCopy(konst(0));
    } else if (!onlyFinalReturn(fn)) {
      frame.retMask = mutableCopy(konst(0));
    }
    for (auto& s : fn.body->body) {
      if (frame.done) break;
      statement(*s, frame);
    }
    --inlineDepth_;
    return frame.retVal;
  }

  int mutableCopy(int src) {
    int r = newReg(true);
    emitTo(r, Op::Mov, src);
    return r;
  }

  Val callHelper(const Expr& e, Frame& caller) {
    const FunctionDecl& fn = *e.callee;
    if (++inlinedCalls_ > (1 << 16)) tooLarge();
    Frame frame;
    frame.exec = caller.exec;
    for (std::size_t i = 0; i < fn.params.size(); ++i) frame.vars[fn.params[i].get()] = expr(*e.args[i], caller);
    return inlineBody(fn, frame);
  }

  // ---- Statements ----

  void statement(const Stmt& s, Frame& f) {
    if (f.done) return;
    countWork();
    switch (s.kind) {
      case StmtKind::Empty:
        return;
      case StmtKind::Block:
        for (auto& b : s.body) {
          if (f.done) return;
          statement(*b, f);
        }
        return;
      case StmtKind::Decl:
        for (std::size_t i = 0; i < s.vars.size(); ++i) {
          const VarDecl* v = s.vars[i].get();
          if (s.inits[i]) {
            f.vars[v] = expr(*s.inits[i], f);
          } else {
            Val z;
            z.n = componentCount(v->type);
            for (int c = 0; c < z.n; ++c) z.r[c] = konst(0);
            f.vars[v] = z;
          }
        }
        return;
      case StmtKind::Expr:
        expr(*s.expr, f);
        return;
      case StmtKind::Return: {
        Val v;
        if (s.expr) v = expr(*s.expr, f);
        if (f.retMask < 0) {
          f.retVal = v;
          f.done = true;
          return;
        }
        int active = andMask(f.exec, emit(Op::Not, f.retMask));
        for (int c = 0; c < f.retVal.n; ++c) emitTo(f.retVal.r[c], Op::Select, active, v.at(c), f.retVal.r[c]);
        emitTo(f.retMask, Op::Or, f.retMask, active);
        if (f.exec < 0) f.done = true;
        return;
      }
      case StmtKind::If: {
        int c = expr(*s.expr, f).r[0];
        int outer = f.exec;
        auto before = f.vars;
        f.exec = andMask(outer, c);
        statement(*s.then, f);
        auto thenVars = std::move(f.vars);
        f.vars = before;
        if (s.otherwise) {
          f.exec = andMask(outer, emit(Op::Not, c));
          statement(*s.otherwise, f);
        }
        f.exec = outer;
        merge(c, thenVars, f.vars, before, f);
        return;
      }
      case StmtKind::For:
      case StmtKind::While:
      case StmtKind::DoWhile:
        loop(s, f);
        return;
    }
  }

  // After a two-way split: variables that differ between the sides take the side of `cond`.
  void merge(int cond, const std::unordered_map<const VarDecl*, Val>& whenTrue,
             const std::unordered_map<const VarDecl*, Val>& whenFalse,
             const std::unordered_map<const VarDecl*, Val>& before, Frame& f) {
    std::unordered_map<const VarDecl*, Val> out;
    for (auto& [var, old] : before) {
      const Val& t = whenTrue.at(var);
      const Val& e = whenFalse.at(var);
      bool same = t.sampler == e.sampler && t.n == e.n;
      for (int c = 0; same && c < t.n; ++c) same = t.r[c] == e.r[c];
      if (same) {
        out[var] = t;
        continue;
      }
      Val m;
      m.n = t.n;
      for (int c = 0; c < t.n; ++c) m.r[c] = t.r[c] == e.r[c] ? t.r[c] : emit(Op::Select, cond, t.r[c], e.r[c]);
      out[var] = m;
      (void)old;
    }
    f.vars = std::move(out);
  }

  void loop(const Stmt& s, Frame& f) {
    auto scopeVars = f.vars;  // names declared by the loop end with it
    if (s.kind == StmtKind::For) statement(*s.init, f);
    std::set<const VarDecl*> assigned;
    if (s.expr) collectAssigned(*s.expr, assigned);
    if (s.step) collectAssigned(*s.step, assigned);
    collectAssigned(*s.then, assigned);
    std::vector<std::pair<const VarDecl*, Val>> carried;
    for (const VarDecl* v : assigned) {
      auto it = f.vars.find(v);
      if (it == f.vars.end()) continue;
      Val loopVal;
      loopVal.n = it->second.n;
      for (int c = 0; c < loopVal.n; ++c) loopVal.r[c] = mutableCopy(it->second.r[c]);
      it->second = loopVal;
      carried.emplace_back(v, loopVal);
    }
    int outer = f.exec;
    int mask = mutableCopy(outer < 0 ? konst(1) : outer);
    int slot = p_.loopSlots++;
    std::size_t head = p_.body.size();
    emitTo(-1, Op::LoopHead, -1, -1, -1, 0, slot);
    auto narrow = [&](int cond) {
      emitTo(mask, Op::And, mask, cond);
      if (f.retMask >= 0) emitTo(mask, Op::And, mask, emit(Op::Not, f.retMask));
    };
    auto writeBack = [&] {
      // Copy values that live in other mutable registers first, so that the updates below
      // all read the values of this iteration.
      std::vector<std::pair<int, int>> updates;
      for (auto& [v, loopVal] : carried) {
        Val& now = f.vars[v];
        for (int c = 0; c < loopVal.n; ++c) {
          int src = now.r[c];
          if (src == loopVal.r[c]) continue;
          if (mutable_[src]) src = emit(Op::Mov, src);
          updates.emplace_back(loopVal.r[c], src);
        }
        now = loopVal;
      }
      for (auto [dst, src] : updates) emitTo(dst, Op::Select, mask, src, dst);
    };
    std::size_t branch = 0;
    f.exec = mask;
    if (s.kind == StmtKind::DoWhile) {
      statement(*s.then, f);
      f.done = false;
      writeBack();
      narrow(expr(*s.expr, f).r[0]);
      branch = p_.body.size();
      emitTo(-1, Op::BranchIfNone, mask);
    } else {
      if (s.expr) narrow(expr(*s.expr, f).r[0]);
      branch = p_.body.size();
      emitTo(-1, Op::BranchIfNone, mask);
      statement(*s.then, f);
      f.done = false;
      if (s.step) expr(*s.step, f);
      writeBack();
    }
    emitTo(-1, Op::LoopBack, -1, -1, -1, 0, int(head));
    p_.body[branch].aux = int(p_.body.size());
    f.exec = outer;
    // Keep only the variables that existed before the loop.
    std::unordered_map<const VarDecl*, Val> out;
    for (auto& [v, val] : scopeVars) out[v] = f.vars.count(v) ? f.vars[v] : val;
    f.vars = std::move(out);
  }

  // ---- Expressions ----

  Val load(const Expr& e, Frame& f) { return expr(e, f); }

  void store(const Expr& target, const Val& v, Frame& f) {
    if (target.kind == ExprKind::Ident) {
      f.vars[target.var] = v;
      return;
    }
    // A swizzle: replace the selected components of the base and store the base.
    const Expr& base = *target.args[0];
    Val b = load(base, f);
    for (int i = 0; i < target.swizzleLength; ++i) b.r[target.swizzle[i]] = v.at(i);
    store(base, b, f);
  }

  Val arithmetic(const std::string& op, const Val& a, const Val& b, Type type) {
    if (op == "+") return map2(Op::Add, a, b);
    if (op == "-") return map2(Op::Sub, a, b);
    if (op == "*") return map2(Op::Mul, a, b);
    Val q = map2(Op::Div, a, b);
    if (type == Type::Int) q = map(Op::Trunc, q);
    return q;
  }

  void countWork() {
    if (++work_ > (1 << 22)) tooLarge();
  }

  Val expr(const Expr& e, Frame& f) {
    countWork();
    switch (e.kind) {
      case ExprKind::IntLit:
      case ExprKind::FloatLit:
      case ExprKind::BoolLit:
        return scalar(konst(static_cast<float>(e.number)));
      case ExprKind::Ident:
        return f.vars.at(e.var);
      case ExprKind::Comma: {
        Val v;
        for (auto& a : e.args) v = expr(*a, f);
        return v;
      }
      case ExprKind::Unary: {
        Val a = expr(*e.args[0], f);
        if (e.name == "-") return map(Op::Neg, a);
        if (e.name == "!") return map(Op::Not, a);
        return a;
      }
      case ExprKind::PreIncDec:
      case ExprKind::PostIncDec: {
        Val old = load(*e.args[0], f);
        Val one = scalar(konst(1));
        Val now = map2(e.name == "++" ? Op::Add : Op::Sub, old, one);
        store(*e.args[0], now, f);
        return e.kind == ExprKind::PreIncDec ? now : old;
      }
      case ExprKind::Assign: {
        Val rhs = expr(*e.args[1], f);
        Val v = rhs;
        if (e.name != "=") v = arithmetic(e.name.substr(0, 1), load(*e.args[0], f), rhs, e.args[0]->type);
        store(*e.args[0], v, f);
        return v;
      }
      case ExprKind::Binary:
        return binary(e, f);
      case ExprKind::Ternary: {
        int c = expr(*e.args[0], f).r[0];
        auto before = f.vars;
        Val a = expr(*e.args[1], f);
        auto thenVars = std::move(f.vars);
        f.vars = before;
        Val b = expr(*e.args[2], f);
        merge(c, thenVars, f.vars, before, f);
        Val out;
        out.n = a.n;
        for (int i = 0; i < a.n; ++i) out.r[i] = a.r[i] == b.r[i] ? a.r[i] : emit(Op::Select, c, a.r[i], b.r[i]);
        return out;
      }
      case ExprKind::Field: {
        Val b = expr(*e.args[0], f);
        Val out;
        out.n = e.swizzleLength;
        for (int i = 0; i < out.n; ++i) out.r[i] = b.r[e.swizzle[i]];
        return out;
      }
      case ExprKind::Call:
        if (e.callee) return callHelper(e, f);
        if (e.constructs != Type::Error) return construct(e, f);
        return builtin(e, f);
    }
    return {};
  }

  Val binary(const Expr& e, Frame& f) {
    const std::string& op = e.name;
    Val a = expr(*e.args[0], f);
    if (op == "&&" || op == "||") {
      // The right side only matters where the left side leaves the outcome open, which also
      // decides whether its assignments count.
      auto before = f.vars;
      Val b = expr(*e.args[1], f);
      auto rightVars = std::move(f.vars);
      f.vars = before;
      if (op == "&&") {
        merge(a.r[0], rightVars, f.vars, before, f);
        return scalar(emit(Op::And, a.r[0], b.r[0]));
      }
      merge(a.r[0], f.vars, rightVars, before, f);
      return scalar(emit(Op::Or, a.r[0], b.r[0]));
    }
    Val b = expr(*e.args[1], f);
    if (op == "+" || op == "-" || op == "*" || op == "/") return arithmetic(op, a, b, e.type);
    if (op == "<") return scalar(emit(Op::Lt, a.r[0], b.r[0]));
    if (op == ">") return scalar(emit(Op::Lt, b.r[0], a.r[0]));
    if (op == "<=") return scalar(emit(Op::Le, a.r[0], b.r[0]));
    if (op == ">=") return scalar(emit(Op::Le, b.r[0], a.r[0]));
    if (op == "^^") return scalar(emit(Op::Ne, a.r[0], b.r[0]));
    if (op == "==" || op == "!=") {
      bool eq = op == "==";
      int acc = emit(eq ? Op::Eq : Op::Ne, a.r[0], b.r[0]);
      for (int i = 1; i < a.n; ++i) acc = emit(eq ? Op::And : Op::Or, acc, emit(eq ? Op::Eq : Op::Ne, a.r[i], b.r[i]));
      return scalar(acc);
    }
    return {};
  }

  Val construct(const Expr& e, Frame& f) {
    Type target = e.constructs;
    int n = componentCount(target);
    std::vector<std::pair<int, Type>> comps;
    for (auto& a : e.args) {
      Val v = expr(*a, f);
      for (int i = 0; i < v.n; ++i) comps.emplace_back(v.r[i], scalarOf(a->type));
    }
    Val out;
    out.n = n;
    bool replicate = e.args.size() == 1 && componentCount(e.args[0]->type) == 1;
    for (int i = 0; i < n; ++i) {
      auto [r, from] = comps[replicate ? 0 : i];
      Type to = scalarOf(target);
      if (to == Type::Bool && from != Type::Bool) r = emit(Op::Ne, r, konst(0));
      else if (to == Type::Int && from == Type::Float) r = emit(Op::Trunc, r);
      out.r[i] = r;
    }
    return out;
  }

  Val builtin(const Expr& e, Frame& f) {
    std::vector<Val> a;
    for (auto& arg : e.args) a.push_back(expr(*arg, f));
    const auto b = static_cast<Builtin>(e.builtin);
    auto extent = [&](int input) {
      auto it = extents_.find(input);
      if (it != extents_.end()) return it->second;
      Val v;
      v.n = 4;
      for (int c = 0; c < 4; ++c) v.r[c] = prologue(Op::SamplerInfo, -1, c, 0, input);
      extents_[input] = v;
      return v;
    };
    auto dest = [&] {
      Val v;
      v.n = 2;
      v.r[0] = destX_;
      v.r[1] = destY_;
      return v;
    };
    auto pair = [&](int x, int y) {
      Val v;
      v.n = 2;
      v.r[0] = x;
      v.r[1] = y;
      return v;
    };
    switch (b) {
      case Builtin::Sample:
        if (a[1].r[0] == destX_ && a[1].r[1] == destY_) return vec4Sample(Op::SampleAtDest, a[0].sampler, -1, -1);
        return vec4Sample(Op::Sample, a[0].sampler, a[1].r[0], a[1].r[1]);
      case Builtin::SamplerCoord:
      case Builtin::DestCoord:
        return dest();
      case Builtin::SamplerTransform:
        return a[1];
      case Builtin::SamplerExtent:
        return extent(a[0].sampler);
      case Builtin::SamplerOrigin: {
        Val x = extent(a[0].sampler);
        return pair(x.r[0], x.r[1]);
      }
      case Builtin::SamplerSize: {
        Val x = extent(a[0].sampler);
        return pair(x.r[2], x.r[3]);
      }
      case Builtin::Premultiply: {
        Val c = a[0];
        Val out;
        out.n = 4;
        for (int i = 0; i < 3; ++i) out.r[i] = emit(Op::Mul, c.r[i], c.r[3]);
        out.r[3] = c.r[3];
        return out;
      }
      case Builtin::Unpremultiply: {
        Val c = a[0];
        int positive = emit(Op::Lt, konst(0), c.r[3]);
        Val out;
        out.n = 4;
        for (int i = 0; i < 3; ++i) out.r[i] = emit(Op::Select, positive, emit(Op::Div, c.r[i], c.r[3]), c.r[i]);
        out.r[3] = c.r[3];
        return out;
      }
      case Builtin::Compare: {
        Val neg = map2(Op::Lt, a[0], scalar(konst(0)));
        return map3(Op::Select, neg, a[1], a[2]);
      }
      case Builtin::Sin:
      case Builtin::SinFast:
        return map(Op::Sin, a[0]);
      case Builtin::Cos:
      case Builtin::CosFast:
        return map(Op::Cos, a[0]);
      case Builtin::Tan:
      case Builtin::TanFast:
        return map(Op::Tan, a[0]);
      case Builtin::Sincos:
      case Builtin::SincosFast:
        return pair(emit(Op::Sin, a[0].r[0]), emit(Op::Cos, a[0].r[0]));
      case Builtin::Cossin:
      case Builtin::CossinFast:
        return pair(emit(Op::Cos, a[0].r[0]), emit(Op::Sin, a[0].r[0]));
      case Builtin::Radians:
        return map2(Op::Mul, a[0], scalar(konst(float(std::numbers::pi / 180.0))));
      case Builtin::Degrees:
        return map2(Op::Mul, a[0], scalar(konst(float(180.0 / std::numbers::pi))));
      case Builtin::Asin: return map(Op::Asin, a[0]);
      case Builtin::Acos: return map(Op::Acos, a[0]);
      case Builtin::Atan: return a.size() == 1 ? map(Op::Atan, a[0]) : map2(Op::Atan2, a[0], a[1]);
      case Builtin::Pow: return map2(Op::Pow, a[0], a[1]);
      case Builtin::Exp: return map(Op::Exp, a[0]);
      case Builtin::Log: return map(Op::Log, a[0]);
      case Builtin::Exp2: return map(Op::Exp2, a[0]);
      case Builtin::Log2: return map(Op::Log2, a[0]);
      case Builtin::Sqrt: return map(Op::Sqrt, a[0]);
      case Builtin::Inversesqrt: return map(Op::InvSqrt, a[0]);
      case Builtin::Abs: return map(Op::Abs, a[0]);
      case Builtin::Sign: return map(Op::Sign, a[0]);
      case Builtin::Floor: return map(Op::Floor, a[0]);
      case Builtin::Ceil: return map(Op::Ceil, a[0]);
      case Builtin::Fract: return map(Op::Fract, a[0]);
      case Builtin::Mod: return map2(Op::Mod, a[0], a[1]);
      case Builtin::Min: return map2(Op::Min, a[0], a[1]);
      case Builtin::Max: return map2(Op::Max, a[0], a[1]);
      case Builtin::Clamp: return map2(Op::Min, map2(Op::Max, a[0], a[1]), a[2]);
      case Builtin::Mix: return map3(Op::Mix, a[0], a[1], a[2]);
      case Builtin::Step: return map2(Op::Step, a[0], a[1]);
      case Builtin::Smoothstep: {
        Val t = map2(Op::Div, map2(Op::Sub, a[2], a[0]), map2(Op::Sub, a[1], a[0]));
        t = map2(Op::Min, map2(Op::Max, t, scalar(konst(0))), scalar(konst(1)));
        Val k = map2(Op::Sub, scalar(konst(3)), map2(Op::Mul, scalar(konst(2)), t));
        return map2(Op::Mul, map2(Op::Mul, t, t), k);
      }
      case Builtin::Length:
        if (a[0].n == 1) return map(Op::Abs, a[0]);
        return scalar(emit(Op::Sqrt, dotRegs(a[0], a[0])));
      case Builtin::Distance: {
        Val d = map2(Op::Sub, a[0], a[1]);
        if (d.n == 1) return map(Op::Abs, d);
        return scalar(emit(Op::Sqrt, dotRegs(d, d)));
      }
      case Builtin::Dot:
        return scalar(dotRegs(a[0], a[1]));
      case Builtin::Cross: {
        const Val& x = a[0];
        const Val& y = a[1];
        Val out;
        out.n = 3;
        for (int i = 0; i < 3; ++i) {
          int j = (i + 1) % 3, k = (i + 2) % 3;
          out.r[i] = emit(Op::Sub, emit(Op::Mul, x.r[j], y.r[k]), emit(Op::Mul, y.r[j], x.r[k]));
        }
        return out;
      }
      case Builtin::Normalize: {
        int len = a[0].n == 1 ? emit(Op::Abs, a[0].r[0]) : emit(Op::Sqrt, dotRegs(a[0], a[0]));
        return map2(Op::Div, a[0], scalar(len));
      }
      case Builtin::Faceforward: {
        int d = dotRegs(a[2], a[1]);
        int neg = emit(Op::Lt, d, konst(0));
        return map3(Op::Select, scalar(neg), a[0], map(Op::Neg, a[0]));
      }
      case Builtin::Reflect: {
        int d = emit(Op::Mul, konst(2), dotRegs(a[1], a[0]));
        return map2(Op::Sub, a[0], map2(Op::Mul, scalar(d), a[1]));
      }
      case Builtin::LessThan: return map2(Op::Lt, a[0], a[1]);
      case Builtin::LessThanEqual: return map2(Op::Le, a[0], a[1]);
      case Builtin::GreaterThan: return map2(Op::Lt, a[1], a[0]);
      case Builtin::GreaterThanEqual: return map2(Op::Le, a[1], a[0]);
      case Builtin::Equal: return map2(Op::Eq, a[0], a[1]);
      case Builtin::NotEqual: return map2(Op::Ne, a[0], a[1]);
      case Builtin::Any:
      case Builtin::All: {
        int acc = a[0].r[0];
        for (int i = 1; i < a[0].n; ++i) acc = emit(b == Builtin::Any ? Op::Or : Op::And, acc, a[0].r[i]);
        return scalar(acc);
      }
      case Builtin::Not: return map(Op::Not, a[0]);
      case Builtin::Count: break;
    }
    return {};
  }

  // ---- Clean-up passes ----

  void finish() {
    // Drop instructions whose results nobody reads. Writes to mutable registers and control
    // flow stay; every other register is written once, before any read.
    std::vector<bool> live(p_.registerCount, false);
    for (int r : p_.result)
      if (r >= 0) live[r] = true;
    std::vector<bool> keep(p_.body.size(), false);
    for (std::size_t k = p_.body.size(); k-- > 0;) {
      const Instr& in = p_.body[k];
      bool sample4 = in.op == Op::Sample || in.op == Op::SampleAtDest;
      bool needed = !isPure(in.op) && in.dst < 0;
      if (in.dst >= 0) {
        if (mutable_[in.dst] || live[in.dst]) needed = true;
        if (sample4)
          for (int c = 1; c < 4; ++c) needed = needed || live[in.dst + c];
      }
      if (!needed) continue;
      keep[k] = true;
      for (int r : {in.a, in.b, in.c})
        if (r >= 0) live[r] = true;
    }
    // Hoist pixel-independent work into the prologue.
    std::vector<bool> uniform(p_.registerCount, false);
    for (const Instr& in : p_.prologue) uniform[in.dst] = true;
    std::vector<Instr> body;
    std::vector<int> newIndex(p_.body.size() + 1, 0);
    for (std::size_t k = 0; k < p_.body.size(); ++k) {
      newIndex[k] = int(body.size());
      if (!keep[k]) continue;
      Instr in = p_.body[k];
      bool hoist = isPure(in.op) && in.dst >= 0 && !mutable_[in.dst];
      for (int r : {in.a, in.b, in.c})
        if (r >= 0 && !uniform[r]) hoist = false;
      if (hoist) {
        uniform[in.dst] = true;
        p_.prologue.push_back(in);
      } else {
        body.push_back(in);
      }
    }
    newIndex[p_.body.size()] = int(body.size());
    for (Instr& in : body)
      if (in.op == Op::BranchIfNone || in.op == Op::LoopBack) in.aux = newIndex[in.aux];
    p_.body = std::move(body);
    // A kernel that returns one input's texel under each pixel is a pass-through.
    if (p_.body.size() == 1 && p_.body[0].op == Op::SampleAtDest) {
      const Instr& in = p_.body[0];
      bool same = true;
      for (int c = 0; c < 4; ++c) same = same && p_.result[c] == in.dst + c;
      if (same) p_.passThroughInput = in.aux;
    }
  }

  Program& p_;
  const FunctionDecl& kernel_;
  std::vector<bool> mutable_;
  std::map<std::uint32_t, int> constants_;
  std::map<int, Val> extents_;
  int destX_ = -1, destY_ = -1;
  int inlineDepth_ = 0;
  long inlinedCalls_ = 0;
  long work_ = 0;
};

const char* opName(Op op) {
  static const char* const names[] = {
      "const", "param", "samplerInfo", "destX", "destY", "sample", "sampleAtDest", "mov", "add", "sub", "mul",
      "div", "neg", "min", "max", "abs", "sign", "floor", "ceil", "fract", "trunc", "mod", "sqrt", "invsqrt",
      "sin", "cos", "tan", "asin", "acos", "atan", "atan2", "pow", "exp", "log", "exp2", "log2", "step", "mix",
      "lt", "le", "eq", "ne", "and", "or", "not", "select", "loopHead", "branchIfNone", "loopBack"};
  return names[int(op)];
}

}  // namespace

std::shared_ptr<const Program> lower(const TranslationUnit& unit, const FunctionDecl& kernel) {
  (void)unit;
  auto p = std::make_shared<Program>();
  Lowerer(*p, kernel).run();
  return p;
}

std::string dump(const Program& program) {
  std::ostringstream out;
  auto list = [&](const char* title, const std::vector<Instr>& code) {
    out << title << ":\n";
    for (std::size_t k = 0; k < code.size(); ++k) {
      const Instr& in = code[k];
      out << "  " << k << ": " << opName(in.op);
      if (in.dst >= 0) out << " r" << in.dst;
      for (int r : {in.a, in.b, in.c})
        if (r >= 0) out << " r" << r;
      if (in.op == Op::Const) out << " " << in.imm;
      if (in.op == Op::Param || in.op == Op::SamplerInfo || in.op == Op::Sample || in.op == Op::SampleAtDest ||
          in.op == Op::LoopHead || in.op == Op::BranchIfNone || in.op == Op::LoopBack)
        out << " #" << in.aux;
      out << "\n";
    }
  };
  list("prologue", program.prologue);
  list("body", program.body);
  out << "result r" << program.result[0] << " r" << program.result[1] << " r" << program.result[2] << " r"
      << program.result[3] << "\n";
  return out.str();
}

}  // namespace cikl
