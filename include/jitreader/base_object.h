// Reference-counted root of every object that crosses the library's interface.
#pragma once

#include <atomic>

#include <boost/intrusive_ptr.hpp>

#include "jitreader/export.h"

namespace velmark_3_11 {

/// Root class with an intrusive, atomic reference count that starts at 0: a new object
/// holds no reference until the first boost::intrusive_ptr is built around it.
class JITREADER_API BaseObject {
public:
    BaseObject() : m_refCount(0) {}
    /// A copy is a new object: its count starts at 0 whatever the source's count.
    BaseObject(const BaseObject&) : m_refCount(0) {}
    /// Copies the source's count as it stands, on purpose and without adjustment.
    BaseObject& operator=(const BaseObject& other)
    {
        m_refCount.store(other.m_refCount.load(std::memory_order_relaxed), std::memory_order_relaxed);
        return *this;
    }

protected:
    virtual ~BaseObject();

    /// Adds one reference; returns the new count.
    unsigned int addRef() const;
    /// Drops one reference and destroys the object when none is left; returns the new count.
    unsigned int release() const;

private:
    friend class IntrusivePtrObjectAccessor;
    mutable std::atomic<unsigned int> m_refCount;
};

/// The one door through which smart pointers reach the protected counter.
class JITREADER_API IntrusivePtrObjectAccessor {
public:
    static void addRef(const BaseObject* object);
    static void release(const BaseObject* object);
    IntrusivePtrObjectAccessor& operator=(const IntrusivePtrObjectAccessor&) { return *this; }
};

inline void intrusive_ptr_add_ref(const BaseObject* object)
{
    IntrusivePtrObjectAccessor::addRef(object);
}

inline void intrusive_ptr_release(const BaseObject* object)
{
    IntrusivePtrObjectAccessor::release(object);
}

} // namespace velmark_3_11
