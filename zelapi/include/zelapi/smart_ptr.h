// SmartPtr: the platform's shared handle. A cursor on a configuration file,
// a database table handed out by the cache and similar objects are shared:
// copying the handle shares the object, the last copy releases it (through
// the deleter the owner installed). Same thread rules as std::shared_ptr.
#pragma once

#include <memory>

template <class T>
using SmartPtr = std::shared_ptr<T>;
