// A guard against native recursion that Python code can drive (a handler that
// emits the signal it handles, an override that calls back in): the C stack
// of the current thread runs out long before Python's recursion limit counts
// such a cycle, so the remaining stack is measured instead.
#pragma once

namespace basekit {

// Raises RecursionError (as a Python error, thrown) when less than a safety
// margin of the current thread's stack is left; `where` names the operation.
void CheckNativeStack(const char *where);

// Whether less than the safety margin is left: for code that gives up a
// branch of its work instead of raising.
bool NativeStackLow();

}  // namespace basekit
