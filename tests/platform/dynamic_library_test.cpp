#include "platform/dynamic_library.h"

#include <gtest/gtest.h>

namespace veltrano::platform {
namespace {

TEST(DynamicLibrary, LoadsALibraryBesideTheProgramAndFailsCleanlyWithoutOne) {
    using AnswerFn = int (*)(int);
    DynamicLibrary library;
    ASSERT_TRUE(library.open("VeltranoFixture"));
    auto answer = reinterpret_cast<AnswerFn>(library.symbol("VeltranoFixtureAnswer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(20), 41);
    EXPECT_EQ(library.symbol("NoSuchEntryPoint"), nullptr);

    // A failed open replaces what was loaded; close() unloads.
    EXPECT_FALSE(library.open("VeltranoNoSuchLibrary"));
    EXPECT_EQ(library.symbol("VeltranoFixtureAnswer"), nullptr);
    ASSERT_TRUE(library.open("VeltranoFixture"));
    library.close();
    EXPECT_FALSE(library.isOpen());
    EXPECT_EQ(library.symbol("VeltranoFixtureAnswer"), nullptr);
}

}  // namespace
}  // namespace veltrano::platform
