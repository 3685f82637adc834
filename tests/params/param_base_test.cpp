#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>

#include "test_files.h"
#include "veltrano.h"

using params_test::ScratchFile;
using params_test::Values;

namespace {

static_assert(std::has_virtual_destructor_v<paramBase>, "records are destroyed through the base");

// A record made only of the base's machinery, binding whatever a test asks for.
struct ProbeRecord : public paramBase {
    int a = 1;
    int b = 2;
    float x = 0.5f;
    float y = 1.5f;
    char* filePath = nullptr;

    using paramBase::appendInt;
    using paramBase::bindFloat;
    using paramBase::bindInt;
    using paramBase::CopyFilePath;
    using paramBase::getData;
    using paramBase::getData_byVec;
    using paramBase::saveData;
};

TEST(ParamBase, CopyFilePathOwnsACopyAndReportsItsCases) {
    ProbeRecord r;
    std::string source = "first.ini";
    EXPECT_EQ(r.CopyFilePath(r.filePath, source.c_str()), 1);
    EXPECT_NE(r.filePath, source.c_str());
    EXPECT_STREQ(r.filePath, "first.ini");
    char* const own = r.filePath;
    EXPECT_EQ(r.CopyFilePath(r.filePath, own), 1);
    EXPECT_EQ(r.filePath, own);
    EXPECT_EQ(r.CopyFilePath(r.filePath, own + 6), 1);   // a source inside the own text
    EXPECT_EQ(r.CopyFilePath(r.filePath, nullptr), -1);  // the own path is kept
    EXPECT_STREQ(r.filePath, "ini");
}

// Field order of maps, binding order of lists and repeated loads show in the records' tests.
TEST(ParamBase, MapsKeepOneKeyPerFieldAndClearedOrOrphanedBindingsDoNothing) {
    ScratchFile file;
    auto source = std::make_unique<ProbeRecord>();
    source->bindInt(&source->a, "old_a");
    source->bindInt(&source->a, "a");  // the last key given wins
    ProbeRecord copy(*source);
    copy.bindFloat(&copy.x, "x");  // bound through the copy: still the source's field
    copy.appendInt(&copy.b, "b");
    file.write("[M]\nold_a=5\na=7\nx=3.5\nb=8\n");
    copy.getData("M", file.path());
    copy.getData_byVec("M", file.path());
    EXPECT_EQ(Values(source->a, source->b, source->x, copy.a, copy.b), Values(7, 8, 3.5f, 1, 2));
    source->saveData("N", file.path());
    EXPECT_EQ(file.read(), "[M]\nold_a=5\na=7\nx=3.5\nb=8\n\n[N]\nx=3.500000\na=7\n");

    source->clearDataToBeSaved();  // cleared: nothing is loaded or saved any more
    file.write("[M]\na=4\nb=4\n");
    source->getData("M", file.path());
    source->getData_byVec("M", file.path());
    EXPECT_EQ(source->a + source->b, 15);
    ProbeRecord orphan(copy);
    orphan.bindInt(&orphan.a, "a");
    source.reset();  // the fields the bindings name are gone: nothing happens either
    orphan.getData("M", file.path());
    orphan.saveData("M", file.path());
    EXPECT_EQ(orphan.a, 1);
    EXPECT_EQ(file.read(), "[M]\na=4\nb=4\n");
}

}  // namespace
