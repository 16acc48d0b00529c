// The agent's privileges: the capabilities it keeps when it runs under its
// service account, raised around the work that needs them.
#pragma once

namespace kova {

// Fixes the kept capability set as permitted, inheritable and ambient,
// drops all others from the bounding set where possible and keeps the set
// across the switch to the service account. Exits the process with status 1
// when the mechanism itself fails (its message printed only when verbose).
// Returns setreuid(getuid(), getuid())'s result.
int priv_init(int verbose);

// Raise and drop the kept capabilities in the effective set. priv_on
// returns a negative value when they could not be raised.
int priv_on();
void priv_off();

}  // namespace kova
