// The methods of a profiler's trace that wait for each other: inlines whose parents have not
// arrived yet, and every method that inlines may name as their parent.
#pragma once

#include <unordered_map>
#include <vector>

#include <boost/container/small_vector.hpp>
#include <boost/intrusive_ptr.hpp>

#include "jitreader/jit_method.h"
#include "jitreader/method_id.h"

namespace velmark_3_11 {

class InlineCache {
public:
    typedef std::unordered_map<MethodId, boost::intrusive_ptr<JitMethod>, MethodId::Hash, std::equal_to<MethodId>,
                               PoolAllocator<std::pair<const MethodId, boost::intrusive_ptr<JitMethod>>>>
        MethodMap;
    /// Equal keys keep their order of arrival; most keys have one method.
    typedef std::unordered_map<MethodId, boost::container::small_vector<boost::intrusive_ptr<JitMethod>, 1>,
                               MethodId::Hash>
        MethodMultiMap;

    /// Files the method under its own id, or an inline under its parent's id: an inline may
    /// itself be a parent. A method under its own id is the store's method of that id, which
    /// the store's map finds: it is only marked as filed, which saves an entry per method.
    void cacheParentMethod(const boost::intrusive_ptr<JitMethod>& jitMethod);
    /// Keeps an inline so that deeper inlines can find it as their parent; true when some of
    /// those came first and wait under its id (a method marked as filed is not asked about).
    bool cacheInlineMethod(const boost::intrusive_ptr<JitMethod>& inlineMethod);
    /// The cached inline with this id: meSuccess or meFail.
    velmark_error_t findInlineMethod(const MethodId& id, boost::intrusive_ptr<JitMethod>& out) const;
    /// The inlines not yet attached that name `parentId`, in order of arrival; false when no
    /// inline at all is filed under that id (a method marked as filed is not asked about).
    bool pendingInlines(const MethodId& parentId, std::vector<boost::intrusive_ptr<JitMethod>>& out) const;

private:
    MethodMap m_cachedInlines;
    MethodMultiMap m_cachedParents;
};

} // namespace velmark_3_11
