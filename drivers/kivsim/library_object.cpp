#include "library_object.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace kivsim {
namespace {

// Plain arrays and an atomic count: nothing here has a destructor that the
// exit handlers could run early.
constexpr int kMaxObjects = 16;
void (*releases[kMaxObjects])();
std::atomic<int> registered{0};

__attribute__((destructor)) void releaseLibraryObjects() {
    for (int i = registered.load() - 1; i >= 0; --i) {
        releases[i]();
    }
    registered.store(0);
}

}  // namespace

void releaseAtUnload(void (*release)()) {
    const int slot = registered.fetch_add(1);
    if (slot >= kMaxObjects) {
        std::fprintf(stderr, "kivapi: more than %d library objects\n", kMaxObjects);
        std::abort();
    }
    releases[slot] = release;
}

}  // namespace kivsim
