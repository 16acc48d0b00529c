#include "platform/privileges.h"

#include <linux/securebits.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kova {
namespace {

// One privilege of the agent's set and the capabilities that stand for it.
struct Privilege {
  const char* name;
  cap_value_t caps[2];
  int count;            // 0: nothing on Linux grants or needs it
  const char* failure;  // printed when it cannot be added to the set
  bool with_errno;      // failure printed perror-style
  bool switched;        // raised by priv_on and dropped by priv_off
};

// In the order the set has always been built, so a failure prints the
// message it always printed.
constexpr Privilege kPrivileges[] = {
    {"file_dac_read",
     // Read the collector's data, lock and settings files and the logs,
     // whichever account wrote them.
     {CAP_DAC_READ_SEARCH},
     1,
     "kovaagent: Can't add FILE_DAC_READ privilege",
     true,
     true},
    {"file_dac_write",
     {
         // Rewrite the components' settings files, purge their old data
         // files and receive files into directories of other accounts.
         CAP_DAC_OVERRIDE,
         // Set the mode of the log and remove files in sticky directories
         // when the service account does not own them.
         CAP_FOWNER,
     },
     2,
     "lock: Can't add FILE_DAC_WRITE privilege",
     true,
     // Never switched: it stays in effect as priv_init leaves it, so that the
     // request children can write where the service account alone may not.
     false},
    {"file_dac_search", {CAP_DAC_READ_SEARCH}, 1, "lock: Can't add FILE_DAC_SEARCH privilege", true, true},
    {"proc_owner",
     {
         // Stop the collector, the real-time and the search agent, which may
         // run under other accounts.
         CAP_KILL,
         // See other accounts' processes' PID namespace in /proc, so that a
         // process of another zone is told apart.
         CAP_SYS_PTRACE,
     },
     2,
     "lock: Can't add PRIV_PROC_OWNER privilege",
     true,
     true},
    {"sys_devices", {}, 0, "kovaagent,  priv_addset PRIV_PROC_DEVICES failed\n", false, true},
    {"proc_setid",
     {
         // Switch to the service account after the set is fixed, and let the
         // started components switch to theirs.
         CAP_SETUID,
         // The group half of that switch, made after setuid.
         CAP_SETGID,
     },
     2,
     "kovaagent,  priv_addset PRIV_PROC_SETID failed\n",
     false,
     true},
    // A PID namespace needs no capability to be looked into from outside.
    {"proc_zone", {}, 0, "kovaagent,  priv_addset PRIV_PROC_ZONE failed\n", false, true},
};

class UniqueCaps {
 public:
  explicit UniqueCaps(cap_t caps) : caps_(caps) {}
  UniqueCaps(const UniqueCaps&) = delete;
  UniqueCaps& operator=(const UniqueCaps&) = delete;
  ~UniqueCaps() {
    if (caps_ != nullptr) cap_free(caps_);
  }
  cap_t get() const { return caps_; }
  explicit operator bool() const { return caps_ != nullptr; }

 private:
  cap_t caps_;
};

bool has(cap_t caps, cap_value_t cap, cap_flag_t flag) {
  cap_flag_value_t value = CAP_CLEAR;
  return cap_get_flag(caps, cap, flag, &value) == 0 && value == CAP_SET;
}

// Calls f(cap) for each kept capability (only those priv_on and priv_off
// switch when switched_only), a capability shared by two privileges twice,
// until f returns false; returns false then.
template <typename F>
bool each_kept(F f, bool switched_only = false) {
  for (const Privilege& privilege : kPrivileges) {
    if (switched_only && !privilege.switched) continue;
    for (int i = 0; i < privilege.count; ++i)
      if (!f(privilege.caps[i])) return false;
  }
  return true;
}

bool is_kept(cap_value_t cap) {
  return !each_kept([cap](cap_value_t kept) { return kept != cap; });
}

[[noreturn]] void fail(int verbose, const char* message, bool with_errno) {
  if (verbose != 0) {
    if (with_errno)
      std::perror(message);
    else
      std::fputs(message, stderr);
  }
  std::exit(1);
}

// The inheritable and permitted steps only report a failure, whatever
// verbose says, and the agent goes on with the sets as they are.
void report_inheritable() { std::fprintf(stderr, "error setting PRIV_INHERITABLE , %s \n", std::strerror(errno)); }

void report_permitted() { std::perror("kovaagent: set PRIV_PERMITTED failed"); }

// Without these bits the setuid to the service account clears the permitted
// and effective sets, and the agent would run on with nothing. Keeping the
// fix-up off is harmless: by then the bounding set holds only the kept set.
bool keep_across_setuid(cap_t current) {
  constexpr unsigned kBits = SECBIT_KEEP_CAPS | SECBIT_NO_SETUID_FIXUP;
  int bits = prctl(PR_GET_SECUREBITS);
  if (bits < 0) return false;
  if ((static_cast<unsigned>(bits) & kBits) == kBits) return true;
  if (has(current, CAP_SETPCAP, CAP_EFFECTIVE))
    return prctl(PR_SET_SECUREBITS, static_cast<unsigned long>(static_cast<unsigned>(bits) | kBits)) == 0;
  // An account without CAP_SETPCAP holds nothing that a setuid could clear.
  return prctl(PR_SET_KEEPCAPS, 1L, 0L, 0L, 0L) == 0;
}

int set_effective(cap_flag_value_t value) {
  UniqueCaps caps(cap_get_proc());
  if (!caps) return -1;
  bool ok = each_kept(
      [&](cap_value_t cap) {
        return !has(caps.get(), cap, CAP_PERMITTED) || cap_set_flag(caps.get(), CAP_EFFECTIVE, 1, &cap, value) == 0;
      },
      true);
  return ok && cap_set_proc(caps.get()) == 0 ? 0 : -1;
}

}  // namespace

int priv_init(int verbose) {
  UniqueCaps current(cap_get_proc());
  UniqueCaps kept(cap_init());
  if (!current || !kept) fail(verbose, "priv_str_to_set failed", true);

  for (const Privilege& privilege : kPrivileges) {
    for (int i = 0; i < privilege.count; ++i) {
      cap_value_t cap = privilege.caps[i];
      // What the account does not hold it cannot keep; the agent does
      // without it rather than refuse to start.
      if (!has(current.get(), cap, CAP_PERMITTED)) continue;
      bool ok = cap_set_flag(kept.get(), CAP_PERMITTED, 1, &cap, CAP_SET) == 0 &&
                cap_set_flag(kept.get(), CAP_INHERITABLE, 1, &cap, CAP_SET) == 0;
      if (ok && has(current.get(), cap, CAP_EFFECTIVE))
        ok = cap_set_flag(kept.get(), CAP_EFFECTIVE, 1, &cap, CAP_SET) == 0;
      if (!ok) fail(verbose, privilege.failure, privilege.with_errno);
    }
  }

  // Before the permitted set shrinks: both steps need CAP_SETPCAP. Keeping
  // the set across setuid is part of fixing it as permitted; without it the
  // agent runs on with nothing once it is the service account.
  if (!keep_across_setuid(current.get())) report_permitted();
  if (has(current.get(), CAP_SETPCAP, CAP_EFFECTIVE)) {
    for (cap_value_t cap = 0; cap < cap_max_bits(); ++cap) {
      if (is_kept(cap) || cap_get_bound(cap) != 1) continue;
      if (cap_drop_bound(cap) != 0) fail(verbose, "kovaagent: set PRIV_LIMIT failed", true);
    }
  }

  // Inheritable first, with the permitted set still whole.
  UniqueCaps step(cap_dup(current.get()));
  const bool inheritable = step && cap_fill_flag(step.get(), CAP_INHERITABLE, kept.get(), CAP_INHERITABLE) == 0 &&
                           cap_set_proc(step.get()) == 0;
  if (!inheritable) report_inheritable();

  if (cap_set_proc(kept.get()) != 0) report_permitted();

  // Programs the agent starts run without file capabilities of their own;
  // the ambient set hands them the kept set across exec.
  bool ambient = each_kept(
      [&](cap_value_t cap) { return !has(kept.get(), cap, CAP_PERMITTED) || cap_set_ambient(cap, CAP_SET) == 0; });
  if (inheritable && !ambient) report_inheritable();

  return setreuid(getuid(), getuid());
}

int priv_on() { return set_effective(CAP_SET); }

void priv_off() { (void)set_effective(CAP_CLEAR); }

}  // namespace kova
