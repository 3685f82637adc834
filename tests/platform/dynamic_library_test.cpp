#include "platform/dynamic_library.h"

#include <gtest/gtest.h>

namespace veltrano::platform {
namespace {

TEST(DynamicLibrary, NamesTheSystemsLibraryFile) {
#if defined(_WIN32)
    EXPECT_EQ(DynamicLibrary::fileNameFor("FpdSys"), "FpdSys.dll");
#else
    EXPECT_EQ(DynamicLibrary::fileNameFor("FpdSys"), "libFpdSys.so");
#endif
}

TEST(DynamicLibrary, MissingLibraryFailsCleanly) {
    DynamicLibrary library;
    EXPECT_FALSE(library.isOpen());
    EXPECT_EQ(library.symbol("Create"), nullptr);

    EXPECT_FALSE(library.open("VeltranoNoSuchLibrary"));
    EXPECT_FALSE(library.isOpen());
    EXPECT_EQ(library.symbol("Create"), nullptr);
    library.close();
    library.close();
    EXPECT_FALSE(library.isOpen());
}

TEST(DynamicLibrary, LoadsALibraryBesideTheProgramAndFindsItsEntryPoints) {
    using AnswerFn = int (*)(int);
    DynamicLibrary library;
    ASSERT_TRUE(library.open("VeltranoFixture"));
    EXPECT_TRUE(library.isOpen());

    auto answer = reinterpret_cast<AnswerFn>(library.symbol("VeltranoFixtureAnswer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(20), 41);
    EXPECT_EQ(library.symbol("NoSuchEntryPoint"), nullptr);
    EXPECT_EQ(library.symbol(nullptr), nullptr);

    // Opening again replaces the first handle; a failed open leaves nothing loaded.
    ASSERT_TRUE(library.open("VeltranoFixture"));
    EXPECT_NE(library.symbol("VeltranoFixtureAnswer"), nullptr);
    EXPECT_FALSE(library.open("VeltranoNoSuchLibrary"));
    EXPECT_EQ(library.symbol("VeltranoFixtureAnswer"), nullptr);

    ASSERT_TRUE(library.open("VeltranoFixture"));
    library.close();
    EXPECT_FALSE(library.isOpen());
    EXPECT_EQ(library.symbol("VeltranoFixtureAnswer"), nullptr);
}

}  // namespace
}  // namespace veltrano::platform
