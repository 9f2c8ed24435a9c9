// Process-wide objects of the driver library that stay usable until the
// library itself goes.
//
// A host may exit with the plug-in still loaded. The plug-in then tears down
// from its own library destructor and closes the driver handles its nodes
// hold, which happens after the C++ exit handlers have destroyed every
// function-local static of this library. An object made here is not destroyed
// by those handlers: this library's destructor frees it, when the library is
// unloaded (so nothing is lost across unload and reload) or at the very end of
// the process, after the plug-in that loaded it.
#ifndef DRIVERS_KIVSIM_LIBRARY_OBJECT_H_
#define DRIVERS_KIVSIM_LIBRARY_OBJECT_H_

#include <mutex>

namespace kivsim {

// Calls `release` from this library's destructor, the latest registered
// first.
void releaseAtUnload(void (*release)());

// The one T of the library, made on first use. T is a type of the caller's
// own, so that each use has its object.
template <class T>
T& libraryObject() {
    static T* object = nullptr;
    static std::once_flag made;
    std::call_once(made, [] {
        object = new T();
        releaseAtUnload([] {
            delete object;
            object = nullptr;
        });
    });
    return *object;
}

}  // namespace kivsim

#endif  // DRIVERS_KIVSIM_LIBRARY_OBJECT_H_
