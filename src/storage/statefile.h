// The program's state files, in the current directory, each read and replaced as a whole: settings
// and labels. A state is what has the two Serialize operations.
#pragma once

#include <optional>
#include <string>

#include "platform/file.h"
#include "storage/archive.h"
#include "utils/fileutil.h"

// Reads the file into the state; without a file the state stays as it is. A file that is cut off or
// cannot be read is deleted: false, and what was read up to the damage is kept.
template <typename State>
bool loadStateFile(const wchar_t* name, State& state) {
    if (!fileutil::fileExists(name))
        return true;
    if (const std::optional<std::string> bytes = fileutil::readBytes(name)) {
        ArchiveReader archive(*bytes);
        state.Serialize(archive);
        if (!archive.failed())
            return true;
    }
    fileutil::removePath(name);
    return false;
}

// Replaces the file as a whole. False if that failed; the old file is then still there.
template <typename State>
bool saveStateFile(const wchar_t* name, const State& state) {
    ArchiveWriter archive;
    state.Serialize(archive);
    return platform::replaceFile(fileutil::nativePath(name), archive.bytes());
}
