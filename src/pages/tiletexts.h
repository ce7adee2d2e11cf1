// What the tiles of both burn pages read in the course of a burn.
#pragma once

#include <string>

namespace tiletexts {

inline constexpr const wchar_t* kRemoved = L"设备已移除！";
inline constexpr const wchar_t* kNumbersUsedUp = L"SN号已耗尽，请导入新的SN号！";

inline std::wstring progress(const std::wstring& name, int percent) {
    return L"正在写入 " + name + L", 进度 " + std::to_wstring(percent) + L"%";
}

inline std::wstring failure(int code, const std::wstring& description) {
    return L"出错, code=" + std::to_wstring(code) + L", des=" + description;
}

// `sn` is empty if no number was written.
inline std::wstring success(const std::wstring& sn) {
    return L"烧录成功！" + (sn.empty() ? sn : L"SN=" + sn);
}

}  // namespace tiletexts
