#include "core/agent_main.h"

namespace kova {

int agent_main(int, char**) { return 0; }

}  // namespace kova
