#include "platform/dynamiclibrary.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "platform/process.h"
#include "support/temporarydirectory.h"

namespace fs = std::filesystem;

TEST(DynamicLibrary, TellsOfTheFileThatIsThereAndCannotBeLoaded) {
    const fs::path file = fs::path(platform::executableDirectory()) / "vorlan-no-library.so";
    writeContent(file, "no library");
    platform::DynamicLibrary library;
    EXPECT_FALSE(library.load("vorlan-no-library"));
    fs::remove(file);
    EXPECT_FALSE(library.isLoaded());
    EXPECT_EQ(library.symbol("anything"), nullptr);
    EXPECT_NE(library.error().find(file.string() + ": "), std::string::npos) << library.error();

    // The earlier failure is forgotten.
    EXPECT_FALSE(library.load("vorlan-no-library"));
    EXPECT_TRUE(library.error().starts_with("vorlan-no-library.so: ")) << library.error();
}
