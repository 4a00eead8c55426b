#pragma once

/* Marks what leaves the shared library; everything else is built hidden. Usable from C. */
#define AGENTKIT_API __attribute__((visibility("default")))
