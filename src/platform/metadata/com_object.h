// Reference counting and interface lookup shared by the stand-ins' objects.
#pragma once

#include <atomic>
#include <exception>
#include <initializer_list>
#include <utility>
#include <new>

#include "platform/metadata/cor.h"

namespace velmark_3_11 {

/// Implements AddRef and Release over an atomic count for `Interface`; a new object starts at
/// 1 (the creator's reference). The derived class implements QueryInterface.
template <class Interface>
class ComObject : public Interface {
public:
    ULONG AddRef() override { return ++m_references; }
    ULONG Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }

protected:
    virtual ~ComObject() = default;

    /// Answers `self` for IUnknown and each of `iids`.
    HRESULT answer(REFIID riid, void** ppv, std::initializer_list<const IID*> iids)
    {
        if (ppv == nullptr)
            return E_POINTER;
        *ppv = nullptr;
        if (riid == IID_IUnknown) {
            *ppv = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        for (const IID* iid : iids)
            if (riid == *iid) {
                *ppv = static_cast<Interface*>(this);
                AddRef();
                return S_OK;
            }
        return E_NOINTERFACE;
    }

private:
    std::atomic<ULONG> m_references{1};
};

/// Runs `body`; what the standard library throws (only allocation, in practice) becomes a
/// result, so that nothing leaves an interface.
template <class Body>
HRESULT guarded(Body body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_FAIL;
    }
}

/// A counted reference that releases on destruction.
template <class T>
class ComPtr {
public:
    ComPtr() = default;
    explicit ComPtr(T* object) : m_object(object) {}
    ComPtr(const ComPtr& other) : m_object(other.m_object)
    {
        if (m_object)
            m_object->AddRef();
    }
    ComPtr& operator=(ComPtr other)
    {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~ComPtr()
    {
        if (m_object)
            m_object->Release();
    }
    T* get() const { return m_object; }
    T* operator->() const { return m_object; }
    explicit operator bool() const { return m_object != nullptr; }
    /// The slot for an out argument; releases what was held.
    T** put()
    {
        *this = ComPtr();
        return &m_object;
    }
    /// Hands the reference to the caller.
    T* detach()
    {
        T* object = m_object;
        m_object = nullptr;
        return object;
    }

private:
    T* m_object = nullptr;
};

} // namespace velmark_3_11
