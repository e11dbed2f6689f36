#ifndef KES_CONTAINERS_H
#define KES_CONTAINERS_H

#include <algorithm>
#include <deque>
#include <list>
#include <map>

namespace kes {

// Thin layers over the standard containers: indexing checks nothing.
template <typename T>
class kesArray : public std::deque<T> {
public:
    void AddBack(const T& value) { this->push_back(value); }

    void Unique(bool (*less)(const T&, const T&), bool (*equal)(const T&, const T&))
    {
        if (less)
            std::sort(this->begin(), this->end(), less);
        else
            std::sort(this->begin(), this->end());
        typename std::deque<T>::iterator last;
        if (equal)
            last = std::unique(this->begin(), this->end(), equal);
        else
            last = std::unique(this->begin(), this->end());
        this->erase(last, this->end());
    }
};

template <typename K, typename V>
class kesMap : public std::map<K, V> {
public:
    // Looks up without inserting; a null value when the key is absent.
    V GetKeyValue(const K& key) const
    {
        typename std::map<K, V>::const_iterator it = this->find(key);
        if (it == this->end())
            return V();
        return it->second;
    }
};

template <typename T>
class kesList : public std::list<T> {
};

template <typename T>
class kesSingletonInherited {
public:
    // The derived object is not built yet, so the sanitizer's type check of this
    // cast would fail; the address itself is all that is taken here.
    __attribute__((no_sanitize("vptr"))) kesSingletonInherited() { _instance = static_cast<T*>(this); }
    ~kesSingletonInherited() { _instance = nullptr; }
    static T* _instance;
};

template <typename T>
T* kesSingletonInherited<T>::_instance = nullptr;

// Scope guard: deletes the object when the scope ends, on every path.
template <typename T>
class kes_delete_ptr_reference {
public:
    explicit kes_delete_ptr_reference(T* pointer) : m_pPointer(pointer) {}
    ~kes_delete_ptr_reference()
    {
        if (m_pPointer) {
            delete m_pPointer;
            m_pPointer = nullptr;
        }
    }
    kes_delete_ptr_reference(const kes_delete_ptr_reference&) = delete;
    kes_delete_ptr_reference& operator=(const kes_delete_ptr_reference&) = delete;

private:
    T* m_pPointer;
};

} // namespace kes

#endif
