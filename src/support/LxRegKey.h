#pragma once
// One key of the settings store, given as text: a root name, then '\' or '/',
// then the sub-key path ("HKLM\Software\Corvanta\Veltrane\TOLV").
//
// On Linux a key is a directory and each value a file in it. The roots are
// folders below $LXREG_ROOT when it is set (HKLM, HKCU, HKU, HKCR, HKCC),
// else /etc/lxreg/<root>, and for HKCU ${XDG_CONFIG_HOME:-~/.config}/lxreg/HKCU.
// Sub-key names match without regard to case, as in the registry. The view
// has no meaning here (one store for every process). A session id other
// than -1 makes HKCU the hive of that session's user: $LXREG_ROOT/HKU/<uid>,
// else that user's ~/.config/lxreg/HKCU.
//
// Open returns an error number in the registry's numbering: 0 success,
// 2 not found, 5 access denied, 11 a malformed location, 1009 anything else.

#include <tolv/platform/UniqueFd.h>
#include "support/RCObject.h"

#include <cstdint>
#include <string>

class LxRegKey : public RCObject {
public:
    enum View : int32_t { Win32Default = 0, Alternate = 1, Reg64Bit = 2, Reg32Bit = 3 };

    static constexpr uint32_t kErrorNotFound = 2;
    static constexpr uint32_t kErrorAccessDenied = 5;
    static constexpr uint32_t kErrorBadFormat = 11;
    static constexpr uint32_t kErrorOther = 1009;

    explicit LxRegKey(std::string location, View view = Win32Default, int32_t sessionId = -1);
    ~LxRegKey() override;

    uint32_t OpenKey();
    void CloseKey();
    bool IsOpen() const { return m_handle.valid(); }
    void SetSessionID(int32_t sessionId);

    const std::string& GetLocation() const { return m_location; }
    View GetView() const { return m_view; }
    // The key's folder once it has been opened (empty before).
    const std::string& GetPath() const { return m_path; }
    int GetHandle() const { return m_handle.get(); }

    // The folder of a root name (short or long form, any case); empty when
    // the name is not a root.
    static std::string RootFolder(const std::string& rootName);
    // The entry of `folder` named `name` without regard to case; empty when
    // there is none.
    static std::string FindEntry(const std::string& folder, const std::string& name);

private:
    const std::string m_location;
    const View m_view;
    int32_t m_sessionId;
    int32_t m_openedSessionId = -1;
    std::string m_path;
    tolv::platform::UniqueFd m_handle;
};
