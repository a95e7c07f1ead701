// The driver loop of the allocation fault tests: runs one operation with its first
// allocation failing, then its second, ... until a run meets no failure, and judges
// every run: the status, the blocks and bytes in use before and after, and the state
// the operation's own checks look at. Independent of any test framework, so that the
// guest programs use it too; failures come back as a list of problems.
#ifndef FSIC_TESTS_FAULT_FAULT_DRIVER_H
#define FSIC_TESTS_FAULT_FAULT_DRIVER_H

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <fsic/defs.h>

#include "alloc_fault.h"

namespace fault {

// One run of an operation.
struct attempt {
  long n = 0; // the counted allocation made to fail (0: none)
  mode how = mode::once;
  fsic_status status = 0;
  report r;
};

// Problems found by an operation's own checks.
class checks {
public:
  void that(bool ok, const std::string &what) {
    if (!ok)
      problems_.push_back(what);
  }
  template <typename A, typename B>
  void equal(const A &got, const B &want, const std::string &what) {
    if (!(got == want)) {
      std::ostringstream s;
      s << what << ": " << got << ", expected " << want;
      problems_.push_back(s.str());
    }
  }
  const std::vector<std::string> &problems() const { return problems_; }

private:
  std::vector<std::string> problems_;
};

// What to run and how to judge it. Only `call` runs with the injector armed.
struct operation {
  std::string name;
  scope sc = scope::library;
  std::vector<mode> modes = {mode::once, mode::from};
  // Before each run: makes the state the call works on.
  std::function<void()> setup = [] {};
  std::function<fsic_status()> call;
  // After a run that failed: the state must be as before the call.
  std::function<void(checks &, const attempt &)> after_failure = [](checks &, const attempt &) {};
  // After a run that succeeded (an undisturbed one, or one whose failed allocation was
  // absorbed): the result must be the normal one. Releases nothing; teardown does.
  std::function<void(checks &, const attempt &)> after_success = [](checks &, const attempt &) {};
  // After each run: releases the state and any result.
  std::function<void()> teardown = [] {};
  // The statuses a run may end in when allocation r failed (default_statuses() if empty).
  std::function<std::vector<fsic_status>(const report &)> allowed;
  // Fail only every stride-th allocation (1, 1 + stride, ...), for slow operations.
  long stride = 1;
  // Go on after a run with problems (all runs are made; the problems are counted).
  bool keep_going = false;
  // The blocks of the caller's state that the call may resize even when it fails (a
  // write buffer grows before a later write fails): left out of the counts compared.
  std::function<live_counts()> held = [] { return live_counts{}; };
};

// Exhausted memory is status 3 wherever the library can tell; a hash context that
// cannot be made is a general failure (1) by design. A failure inside another library
// (libc, libudev, ...) may be absorbed there (0) or seen as that library's failure (1).
inline std::vector<fsic_status> default_statuses(const report &r) {
  if (r.from_library)
    return {r.in_hash_context ? FSIC_ERR_FAILED : FSIC_ERR_NO_MEMORY};
  return {FSIC_OK, FSIC_ERR_FAILED, FSIC_ERR_NO_MEMORY};
}

struct outcome {
  long points = 0; // counted allocations of an undisturbed run: the injection points
  long runs = 0;   // runs that met an injected failure
  std::map<std::string, long> endings; // how the runs of mode::once ended
  std::vector<std::string> problems;   // the first 20
  long runs_with_problems = 0;
};

inline std::string describe(const attempt &a) {
  std::ostringstream s;
  s << "allocation " << a.n << (a.how == mode::from ? " and later" : "");
  if (a.r.fired()) {
    s << " (" << a.r.function << " of " << a.r.size << " bytes, "
      << (a.r.from_library ? "by the library" : std::string("in ") + a.r.object)
      << (a.r.in_hash_context ? ", hash context" : "") << ")";
  }
  s << " failing: status " << a.status;
  return s.str();
}

inline live_counts minus(live_counts a, const live_counts &b) {
  a.blocks -= b.blocks;
  a.bytes -= b.bytes;
  return a;
}

inline std::string describe(const live_counts &c) {
  return std::to_string(c.blocks) + " blocks, " + std::to_string(c.bytes) + " bytes";
}

inline std::string ending_of(const attempt &a) {
  std::string status = a.status == FSIC_OK ? "absorbed" : std::to_string(a.status);
  if (a.r.from_library)
    return a.r.in_hash_context ? status + " (hash context)" : status;
  return status + " in " + a.r.object;
}

inline outcome exercise(const operation &op) {
  outcome out;
  long problems_seen = 0;
  auto problem = [&](const std::string &p) {
    problems_seen++;
    if (out.problems.size() < 20)
      out.problems.push_back(p);
  };
  auto take = [&](const checks &c, const std::string &prefix) {
    for (const auto &p : c.problems())
      problem(prefix + ": " + p);
  };

  // Undisturbed runs: the first settles what libraries make once per process (time
  // zone, caches); some make it a run later, at a moment of their own, so the runs go
  // on until one leaves nothing behind (a leak leaves something every time, and is
  // reported after the last). That run gives the number of allocations.
  // FAULT_TRACK_BLOCKS in the environment lists the blocks that a run leaves in use.
  const bool track = std::getenv("FAULT_TRACK_BLOCKS") != nullptr;
  constexpr int undisturbed_runs = 4;
  for (int i = 0; i < undisturbed_runs; i++) {
    if (track)
      track_blocks_begin();
    const live_counts before = live();
    op.setup();
    arm(op.sc, 0);
    const fsic_status s = op.call();
    const report r = disarm();
    checks c;
    if (s != FSIC_OK)
      problem("an undisturbed run ends in status " + std::to_string(s));
    else
      op.after_success(c, {0, mode::once, s, r});
    op.teardown();
    take(c, "undisturbed run");
    const bool changed = live() != before;
    if (track)
      track_blocks_end(changed);
    if (i >= 1 && (!changed || i == undisturbed_runs - 1 || !c.problems().empty())) {
      out.points = r.allocations;
      if (c.problems().empty() && changed)
        problem("an undisturbed run leaves " + describe(live()) + " in use, " + describe(before) +
                " before");
      break;
    }
  }
  if (!out.problems.empty())
    return out;

  const long stride = std::max(1L, op.stride);
  for (mode how : op.modes) {
    for (long n = 1;; n += stride) {
      const long problems_before = problems_seen;
      if (track)
        track_blocks_begin();
      const live_counts before_setup = live();
      op.setup();
      const live_counts before = minus(live(), op.held());
      arm(op.sc, n, how);
      const fsic_status s = op.call();
      const report r = disarm();
      const live_counts after = minus(live(), op.held());
      const attempt a{n, how, s, r};
      // The operation's checks, then its teardown; the driver's own bookkeeping (which
      // allocates) only after the last count.
      checks c;
      if (s == FSIC_OK)
        op.after_success(c, a);
      else
        op.after_failure(c, a);
      op.teardown();
      const live_counts end = live();
      if (track)
        track_blocks_end(end != before_setup);

      if (!r.fired()) {
        if (s != FSIC_OK)
          problem(describe(a) + ": no failure was met, yet the status is not 0");
        // (Other libraries' allocations vary a little from run to run: their hash
        // tables are seeded at random. The library's own do not.)
        if (n <= out.points && op.sc == scope::library)
          problem(describe(a) + ": the run made " + std::to_string(r.allocations) +
                  " allocations, an undisturbed one " + std::to_string(out.points));
      } else {
        out.runs++;
        const std::vector<fsic_status> allowed = op.allowed ? op.allowed(r) : default_statuses(r);
        if (std::find(allowed.begin(), allowed.end(), s) == allowed.end()) {
          std::string list;
          for (fsic_status x : allowed)
            list += (list.empty() ? "" : " or ") + std::to_string(x);
          problem(describe(a) + ", expected " + list);
        }
        if (how == mode::once)
          out.endings[ending_of(a)]++;
        if (s != FSIC_OK && after != before)
          problem(describe(a) + ": " + describe(after) + " in use after the call, " +
                  describe(before) + " before");
      }
      take(c, describe(a));
      // (Problems found by the checks hold blocks of their own: no count then.)
      if (c.problems().empty() && end != before_setup)
        problem(describe(a) + ": " + describe(end) + " in use after the run, " +
                describe(before_setup) + " before");
      if (problems_seen > problems_before)
        out.runs_with_problems++;
      if ((!op.keep_going && !out.problems.empty()) || !r.fired())
        break;
      if (n > 1000000) {
        problem("no end to the allocations");
        break;
      }
    }
    if (!op.keep_going && !out.problems.empty())
      break;
  }
  if (leak_check_found_leaks())
    problem("LeakSanitizer found unreachable blocks (see its report above)");
  return out;
}

// "<name>: <points> injection points" and, where not every run ended in the default
// status, how they ended.
inline std::string summary(const std::string &name, const operation &op, const outcome &o) {
  std::ostringstream s;
  s << name << ": " << o.points << " injection points";
  if (op.sc == scope::process)
    s << " (every allocation of the process)";
  if (op.stride > 1)
    s << " (one in " << op.stride << " failed)";
  bool plain = true;
  for (const auto &[ending, count] : o.endings)
    plain = plain && ending == "3";
  if (!plain) {
    s << "; endings:";
    for (const auto &[ending, count] : o.endings)
      s << " " << ending << " x" << count << ";";
  }
  if (op.keep_going && o.runs_with_problems > 0)
    s << "; runs with problems: " << o.runs_with_problems;
  return s.str();
}

} // namespace fault

#endif // FSIC_TESTS_FAULT_FAULT_DRIVER_H
