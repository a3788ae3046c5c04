#include "jitreader/base_object.h"

#include <gtest/gtest.h>

namespace velmark_3_11 {
namespace {

// Exposes the protected counter and records its own destruction.
class Probe : public BaseObject {
public:
    explicit Probe(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    Probe(const Probe& other) = default;
    Probe& operator=(const Probe& other) = default;
    ~Probe() override
    {
        if (m_destroyed)
            ++*m_destroyed;
    }

    unsigned int add() const { return addRef(); }
    unsigned int drop() const { return release(); }
    // Reads the count without destroying: a count of 0 is left at 1, which is harmless
    // for the stack objects that are read at 0 here.
    unsigned int count() const
    {
        const unsigned int n = addRef() - 1;
        if (n != 0)
            release();
        return n;
    }

private:
    int* m_destroyed;
};

TEST(BaseObject, CountStartsAtZeroAndTheLastReleaseDestroys)
{
    int destroyed = 0;
    {
        boost::intrusive_ptr<Probe> first(new Probe(&destroyed));
        boost::intrusive_ptr<Probe> second(first);
        EXPECT_EQ(3u, first->add());
        EXPECT_EQ(2u, first->drop());
        second.reset();
        EXPECT_EQ(1u, first->count());
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
}

TEST(BaseObject, CopyStartsAtZeroAndAssignmentCopiesTheCount)
{
    boost::intrusive_ptr<Probe> shared(new Probe);
    boost::intrusive_ptr<Probe> second = shared;
    Probe copy(*shared);
    EXPECT_EQ(0u, copy.count());

    // Assignment claims the references of the source although nothing holds the target.
    Probe assigned;
    assigned = *shared;
    EXPECT_EQ(2u, assigned.count());
}

} // namespace
} // namespace velmark_3_11
