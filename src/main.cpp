#include "agent/agent_main.h"

int main(int argc, char** argv) { return kova::agent_main(argc, argv); }
