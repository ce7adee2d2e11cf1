#include "vorlanfactorytool.h"

#include "platform/singleinstance.h"
#include "ui/applicationlook.h"
#include "utils/trace.h"
#include "vorlanfactorytooldlg.h"

bool CVorlanFactoryToolApp::InitInstance() {
    setUpApplication(*this);
    const platform::SingleInstance instance("VorlanFactoryTool");
    if (!instance.isFirst())
        return false;
    CVorlanFactoryToolDlg dialog;
    dialog.OnInitDialog();
    if (exec() == -1)
        TRACE(L"警告: 对话框创建失败，应用程序将意外终止。\n");
    return false;
}
