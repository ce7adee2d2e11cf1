// The names of a package's entries. Whoever made the package chose them, so they are trusted with
// nothing. Either slash separates directories.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace entryname {

// Takes off, as often as they come back, leading drive prefixes such as "C:", leading separators,
// and all up to the end of the first ".." between two separators. What is left may still begin
// with ".." or end with it; components() refuses it then.
std::wstring makeSafe(std::wstring_view name);

// Whether the entry is a directory, told by a separator at the end of its name.
bool isDirectory(std::wstring_view name);

// The steps from the unpack directory down to the entry, without those that go nowhere ("." and
// empty ones). Nothing if the name holds ".." as a step or a NUL character, or has no step at all.
std::optional<std::vector<std::wstring>> components(std::wstring_view name);

}  // namespace entryname
