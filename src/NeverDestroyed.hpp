#pragma once

#include <new>
#include <utility>

namespace zel {

// A static object that is built at library load and never torn down. The process may end by exit()
// while the library's threads still run; a destructor would pull the state from under them.
template<typename T>
class NeverDestroyed {
public:
    template<typename... Args>
    explicit NeverDestroyed(Args&&... args) {
        ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
    }
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& operator*() { return *get(); }
    T* operator->() { return get(); }

private:
    T* get() { return std::launder(reinterpret_cast<T*>(storage_)); }

    alignas(T) unsigned char storage_[sizeof(T)];
};

} // namespace zel
