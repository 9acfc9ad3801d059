// Tests of fixed paths run in a child with mounts of its own, so that the suite can run in parallel and
// changes nothing on the machine.
#ifndef TESTS_SUPPORT_OWN_NAMESPACE_H
#define TESTS_SUPPORT_OWN_NAMESPACE_H

#include <functional>

// Runs `body` in a child process that sees empty folders at /tmp and /etc/quillnet and makes its
// temporary files in that /tmp. A failed expectation in it, or its death, fails the calling test. Skips
// the test when the body does, and where the kernel allows no namespace, whose reason it prints.
void in_own_namespace(const std::function<void()>& body);

#endif // TESTS_SUPPORT_OWN_NAMESPACE_H
