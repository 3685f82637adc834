#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "test_files.h"
#include "veltrano.h"

using params_test::ScratchFile;

namespace {

// A record made only of the base's machinery, binding whatever a test asks for.
struct ProbeRecord : public paramBase {
    int a = 1;
    int b = 2;
    float x = 0.5f;
    float y = 1.5f;
    char* filePath = nullptr;

    ProbeRecord() = default;
    ProbeRecord(const ProbeRecord& other)
        : paramBase(other), a(other.a), b(other.b), x(other.x), y(other.y), filePath(other.filePath) {}
    ProbeRecord& operator=(const ProbeRecord& other) {
        paramBase::operator=(other);
        return *this;
    }

    using paramBase::appendFloat;
    using paramBase::appendInt;
    using paramBase::bindFloat;
    using paramBase::bindInt;
    using paramBase::CopyFilePath;
    using paramBase::getData;
    using paramBase::getData_byVec;
    using paramBase::saveData;
    using paramBase::saveData_byVec;
};

TEST(ParamBase, CopyFilePathOwnsACopyAndReportsItsCases) {
    ProbeRecord r;
    char* path = nullptr;
    EXPECT_EQ(r.CopyFilePath(path, nullptr), -1);
    EXPECT_EQ(path, nullptr);

    std::string source = "first.ini";
    EXPECT_EQ(r.CopyFilePath(path, source.c_str()), 1);
    ASSERT_NE(path, nullptr);
    EXPECT_NE(path, source.c_str());
    source = "changed";
    EXPECT_STREQ(path, "first.ini");

    char* const same = path;
    EXPECT_EQ(r.CopyFilePath(path, same), 1);
    EXPECT_EQ(path, same);

    // The source may be the record's own text, or point into it.
    EXPECT_EQ(r.CopyFilePath(path, same + 6), 1);
    EXPECT_STREQ(path, "ini");
    EXPECT_EQ(r.CopyFilePath(path, nullptr), -1);
    EXPECT_STREQ(path, "ini");
}

TEST(ParamBase, MapBindingsGoInFieldOrderListBindingsInBindingOrder) {
    ScratchFile file;
    ProbeRecord r;
    r.a = 10;
    r.b = 20;
    r.x = 0.25f;
    r.y = 2.0f;
    // Bound out of field order, one field twice: the map keeps one key per field (the last).
    r.bindFloat(&r.y, "y");
    r.bindInt(&r.b, "b");
    r.bindFloat(&r.x, "x");
    r.bindInt(&r.a, "old_a");
    r.bindInt(&r.a, "a");
    r.saveData("M", file.path());
    // Each new key lands at the top of the section, so the file shows the reverse write order:
    // ints a, b, then floats x, y.
    EXPECT_EQ(file.read(), "[M]\ny=2.000000\nx=0.250000\nb=20\na=10\n");

    // Lists keep their order, ints first; an identical binding is not added again.
    r.appendFloat(&r.y, "y");
    r.appendInt(&r.b, "b");
    r.appendFloat(&r.x, "x");
    r.appendInt(&r.a, "a");
    r.appendInt(&r.b, "b");
    r.saveData_byVec("L", file.path());
    EXPECT_EQ(file.read(),
              "[M]\ny=2.000000\nx=0.250000\nb=20\na=10\n\n[L]\nx=0.250000\ny=2.000000\na=10\nb=20\n");
}

TEST(ParamBase, LoadingKeepsFieldsWhoseKeysAreMissing) {
    ScratchFile file;
    file.write("[M]\na=7\ny=-1.25\n[L]\nb=8\nx=4\n");
    ProbeRecord r;
    r.bindInt(&r.a, "a");
    r.bindInt(&r.b, "b");
    r.bindFloat(&r.x, "x");
    r.bindFloat(&r.y, "y");
    r.getData("M", file.path());
    EXPECT_EQ(r.a, 7);
    EXPECT_EQ(r.b, 2);
    EXPECT_EQ(r.x, 0.5f);
    EXPECT_EQ(r.y, -1.25f);

    ProbeRecord l;
    l.appendInt(&l.a, "a");
    l.appendInt(&l.b, "b");
    l.appendFloat(&l.x, "x");
    l.getData_byVec("L", file.path());
    EXPECT_EQ(l.a, 1);
    EXPECT_EQ(l.b, 8);
    EXPECT_EQ(l.x, 4.0f);
    EXPECT_EQ(l.y, 1.5f);  // not bound
}

TEST(ParamBase, ClearedRecordLoadsAndSavesNothing) {
    ScratchFile file;
    file.write("[M]\na=7\n");
    ProbeRecord r;
    r.bindInt(&r.a, "a");
    r.appendInt(&r.b, "b");
    r.clearDataToBeSaved();
    r.getData("M", file.path());
    r.getData_byVec("M", file.path());
    EXPECT_EQ(r.a, 1);
    ScratchFile out("_out");
    r.saveData("M", out.path());
    r.saveData_byVec("M", out.path());
    EXPECT_EQ(out.read(), "<missing>");
}

TEST(ParamBase, CopiesShareBindingsWithTheSourceUntilItIsGone) {
    ScratchFile file;
    file.write("[M]\na=7\nx=3.5\n");
    auto source = std::make_unique<ProbeRecord>();
    source->bindInt(&source->a, "a");
    ProbeRecord copy(*source);
    // A binding made through the copy names the same field of the source.
    copy.bindFloat(&copy.x, "x");
    copy.getData("M", file.path());
    EXPECT_EQ(source->a, 7);
    EXPECT_EQ(source->x, 3.5f);
    EXPECT_EQ(copy.a, 1);
    EXPECT_EQ(copy.x, 0.5f);

    // Base assignment takes over the other record's bindings too.
    ProbeRecord other;
    other = copy;
    source->a = 11;
    ScratchFile out("_out");
    other.saveData("M", out.path());
    EXPECT_EQ(out.read(), "[M]\nx=3.500000\na=11\n");

    // Once the source is destroyed, its bindings reach nothing.
    source.reset();
    copy.getData("M", file.path());
    other.saveData("N", out.path());
    EXPECT_EQ(copy.a, 1);
    EXPECT_EQ(out.read(), "[M]\nx=3.500000\na=11\n");
}

TEST(ParamBase, RecordsAreDestroyedThroughTheBase) {
    ScratchFile file;
    file.write("[clipParam]\nup=1\n");
    std::unique_ptr<paramBase> records[] = {
        std::make_unique<clipParam>(file.path()), std::make_unique<struAceGammaParam>(file.path(), 1),
        std::make_unique<claheParam>(file.path()), std::make_unique<struWLNParam>(file.path())};
    EXPECT_EQ(static_cast<clipParam*>(records[0].get())->up, 1);
    for (auto& r : records) r.reset();  // leaks or double frees show under the sanitizers
}

}  // namespace
