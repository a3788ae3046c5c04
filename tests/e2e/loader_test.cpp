#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "e2e_util.h"

using namespace velmark_3_11;
using namespace tracewriter;

namespace {

struct LoaderFixture : ::testing::Test {
    boost::intrusive_ptr<IJitLoader> load()
    {
        auto directories = e2e::dirs(root, {"d"});
        return IJitLoader::create(directories);
    }
    velmark_error_t resolve(IJitLoader& loader, unsigned long long time, unsigned long long address,
                            unsigned int pid, unsigned long long* jitRva = nullptr)
    {
        unsigned long long rva = 0;
        boost::intrusive_ptr<IModule> module;
        const velmark_error_t result = loader.resolveModule(time, address, pid, 1, &rva, module);
        if (jitRva)
            *jitRva = rva;
        return result;
    }

    jrtest::TempDir root;
};

TEST_F(LoaderFixture, ReadsAProcessOnceOnFirstDemand)
{
    TraceWriter trace;
    trace.magic().load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "f"));
    const std::string path = root.write("d/host.7.jit", trace.bytes());
    root.write("d/host.8.jit", {0xff, 0xff, 0xff, 0xff}); // never asked about, never read
    auto loader = load();
    ASSERT_TRUE(loader);

    EXPECT_EQ(meFail, resolve(*loader, 150, 0x1010, 99)); // unknown process
    unsigned long long jitRva = 0;
    ASSERT_EQ(meSuccess, resolve(*loader, 150, 0x1010, 7, &jitRva));
    EXPECT_EQ(0x11u, jitRva);

    // The file is gone, so a second read would fail: the answer shows that none happens.
    boost::filesystem::remove(path);
    EXPECT_EQ(meSuccess, resolve(*loader, 150, 0x1020, 7, &jitRva));
    EXPECT_EQ(0x21u, jitRva);
    EXPECT_EQ(meFail, resolve(*loader, 50, 0x1020, 7));
}

TEST_F(LoaderFixture, ModulesModeKeepsNoCodeBytes)
{
    TraceWriter trace;
    trace.magic()
        .load(kFunctionLoad64_v3, e2e::method(1, 0x1000, 0x40, 100, "old"))
        .load(kFunctionLoad64_v3, e2e::method(2, 0x1000, 0x40, 300, "new"));
    root.write("d/host.7.jit", trace.bytes());
    auto loader = load();
    boost::intrusive_ptr<ICodeRegion> region;
    ASSERT_EQ(meSuccess, loader->findNextRegion(150, 0x1000, 0x1040, 7, 1, region));
    ASSERT_TRUE(region);
    EXPECT_EQ(300u, region->loadTime());
    EXPECT_FALSE(region->getContent());

    unsigned long long jitRva = 0;
    boost::intrusive_ptr<IModule> module;
    ASSERT_EQ(meSuccess, loader->resolveModule(120, 0x1000, 7, 1, &jitRva, module));
    EXPECT_STREQ(L"/opt/app/app.dll", module->getName());
}

TEST_F(LoaderFixture, HostIdsAndModuleEvaluators)
{
    root.write("d/node.one.7.jit", {});
    auto loader = load();
    ASSERT_TRUE(loader);
    unsigned int id = 99;
    EXPECT_EQ(meSuccess, loader->getHostId(L"node.one", &id));
    EXPECT_EQ(1u, id);
    EXPECT_EQ(meInvalidArgument, loader->getHostId(L"node.one", nullptr));

    EXPECT_FALSE(loader->createModuleEvaluator(nullptr));
    auto gac = loader->createModuleEvaluator(L"C:\\Windows\\assembly\\GAC_64\\x.dll");
    ASSERT_TRUE(gac);
    EXPECT_EQ(meSuccess, gac->isNativeImage());
}

} // namespace
