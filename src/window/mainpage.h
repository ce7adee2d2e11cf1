// The first page: large buttons that lead to the burn pages and start the driver installers, which
// lie in "drivers" of the current directory.
#pragma once

#include <string>

#include "ui/page.h"
#include "ui/pagesheet.h"

class CMainPage final : public Page {
  public:
    // Where the pages stand in the sheet.
    static constexpr int kUsbPage = 1;
    static constexpr int kSerialPage = 2;

    // The buttons turn to pages of `sheet`.
    explicit CMainPage(PageSheet& sheet);

    void OnInitDialog() override;

  private:
    // Starts the program of that name and does not wait for it. Tells the operator if it is
    // missing or cannot be started.
    void launchInstaller(const std::wstring& name);

    PageSheet& sheet_;
};
