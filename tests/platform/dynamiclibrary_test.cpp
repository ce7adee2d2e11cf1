#include "platform/dynamiclibrary.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "platform/process.h"
#include "support/temporarydirectory.h"

namespace fs = std::filesystem;

TEST(DynamicLibrary, TellsOfTheFileThatIsThereAndCannotBeLoaded) {
    // Of a name of its own: another copy of this test may run beside it.
    const std::string name = "vorlan-no-library-" + std::to_string(platform::processId());
    const fs::path file = fs::path(platform::executableDirectory()) / (name + ".so");
    writeContent(file, "no library");
    platform::DynamicLibrary library;
    EXPECT_FALSE(library.load(name));
    fs::remove(file);
    EXPECT_FALSE(library.isLoaded());
    EXPECT_EQ(library.symbol("anything"), nullptr);
    EXPECT_NE(library.error().find(file.string() + ": "), std::string::npos) << library.error();

    // The earlier failure is forgotten.
    EXPECT_FALSE(library.load(name));
    EXPECT_TRUE(library.error().starts_with(name + ".so: ")) << library.error();
}
