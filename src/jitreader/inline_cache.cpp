#include "jitreader/inline_cache.h"

#include "basekit2/assertion.h"
#include "platform/log.h"

namespace velmark_3_11 {

namespace {

constexpr auto kLogNumbers = logging::numbers_t::hex;

} // namespace

void InlineCache::cacheParentMethod(const boost::intrusive_ptr<JitMethod>& jitMethod)
{
    BASEKIT2_ASSERT_TEXT(jitMethod->getRawMethodId(), "jitMethod->getRawMethodId()");
    if (jitMethod->getRawParentId() != 0) {
        m_cachedParents[jitMethod->getParentId()].push_back(jitMethod);
        VM_TRACE(L"Cached 'inline as a parent' method (method id = " << jitMethod->getRawMethodId() << L")");
    } else {
        jitMethod->markFiledAsParent();
        VM_TRACE(L"Cached parent method (method id = " << jitMethod->getRawMethodId() << L")");
    }
}

bool InlineCache::cacheInlineMethod(const boost::intrusive_ptr<JitMethod>& inlineMethod)
{
    if (!m_cachedInlines.insert(std::make_pair(inlineMethod->getMethodId(), inlineMethod)).second)
        VM_TRACE(L"Already cached inline method (method id = " << inlineMethod->getRawMethodId() << L")");
    return m_cachedParents.count(inlineMethod->getMethodId()) != 0;
}

velmark_error_t InlineCache::findInlineMethod(const MethodId& id, boost::intrusive_ptr<JitMethod>& out) const
{
    const auto it = m_cachedInlines.find(id);
    if (it == m_cachedInlines.end())
        return meFail;
    out = it->second;
    return meSuccess;
}

bool InlineCache::pendingInlines(const MethodId& parentId, std::vector<boost::intrusive_ptr<JitMethod>>& out) const
{
    out.clear();
    const auto waiting = m_cachedParents.find(parentId);
    if (waiting == m_cachedParents.end())
        return false;
    // Under a parent's id stand the inlines that name it.
    for (const auto& cached : waiting->second)
        if (cached->getRawParentId() != 0 && !cached->isInlined())
            out.push_back(cached);
    return true;
}

} // namespace velmark_3_11
