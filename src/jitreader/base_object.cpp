#include "jitreader/base_object.h"

namespace velmark_3_11 {

BaseObject::~BaseObject() = default;

unsigned int BaseObject::addRef() const
{
    return m_refCount.fetch_add(1) + 1;
}

unsigned int BaseObject::release() const
{
    const unsigned int count = m_refCount.fetch_sub(1) - 1;
    if (count == 0)
        delete this;
    return count;
}

void IntrusivePtrObjectAccessor::addRef(const BaseObject* object)
{
    object->addRef();
}

void IntrusivePtrObjectAccessor::release(const BaseObject* object)
{
    object->release();
}

} // namespace velmark_3_11
