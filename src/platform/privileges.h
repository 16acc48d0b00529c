// The agent's privileges: the capabilities it keeps when it runs under its
// service account, raised around the work that needs them.
#pragma once

namespace kova {

// Fixes the kept capability set as permitted, inheritable and ambient,
// drops all others from the bounding set where possible and keeps the set
// across the switch to the service account: after priv_init and priv_on, a
// root process may setuid and then still setgid. A kept capability the
// process does not hold is left out, so an unprivileged account can start
// the agent. Exits the process with status 1 when the set cannot be built
// or the bounding set cannot be cut (the message printed only when
// verbose); a failure to fix the inheritable or the permitted set is
// printed and the agent goes on. Returns setreuid(getuid(), getuid())'s
// result.
int priv_init(int verbose);

// Raise and drop in the effective set the kept capabilities of every
// privilege but file_dac_write (CAP_DAC_OVERRIDE, CAP_FOWNER), as far as the
// process holds them; those stay as priv_init left them. priv_on returns a
// negative value when they could not be raised.
int priv_on();
void priv_off();

}  // namespace kova
