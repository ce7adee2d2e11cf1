#include "window/vorlanfactorytool.h"

#include "platform/singleinstance.h"
#include "ui/applicationlook.h"
#include "utils/trace.h"
#include "window/vorlanfactorytooldlg.h"

bool CVorlanFactoryToolApp::InitInstance() {
    setUpApplication(*this);
    platform::SingleInstance instance;
    switch (instance.claim("VorlanFactoryTool")) {
        case platform::SingleInstance::Claim::kFirst:
            break;
        case platform::SingleInstance::Claim::kAnotherRuns:
            return false;
        case platform::SingleInstance::Claim::kUnguarded:
            TRACE("a second copy would not be noticed: %s\n", platform::lastErrorText().c_str());
            break;
    }
    CVorlanFactoryToolDlg dialog;
    dialog.OnInitDialog();
    if (exec() == -1)
        TRACE(L"警告: 对话框创建失败，应用程序将意外终止。\n");
    return false;
}
