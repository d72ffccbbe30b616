// The ports of a data channel are fixed, so tests that use them need a network of their own.
#pragma once

namespace lumora_test {

// Moves this process, which must have one thread only, into a network namespace with nothing but lo. If
// that is not permitted it waits until no other such test runs, and keeps others waiting until it ends.
void EnterOwnNetwork();

}  // namespace lumora_test
