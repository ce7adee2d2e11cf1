// The examples of docs/protocols.md: what stands between "```hex NAME" and "```".
#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

// The bytes of all examples whose names begin so, by name.
inline std::map<std::string, std::string> documentedBytes(const std::string& beginning) {
    std::map<std::string, std::string> examples;
    std::ifstream document(VORLAN_DOCUMENTS "/protocols.md");
    std::string name;
    const std::string opening = "```hex ";
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("```")) {
            name = line.starts_with(opening + beginning) ? line.substr(opening.size()) : "";
            continue;
        }
        std::istringstream bytes(name.empty() ? "" : line);
        for (std::string byte; bytes >> byte;)
            examples[name] += static_cast<char>(std::strtol(byte.c_str(), nullptr, 16));
    }
    return examples;
}
