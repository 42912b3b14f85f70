#pragma once

#include <windows.h>

#include <msi.h>

namespace corvi {

/// Takes the suite's device-MFT identifier out of the chains ("CameraDeviceMftClsidChain", "CLSID") of
/// all cameras in the three device-interface keys. 0, or ERROR_INSTALL_FAILURE when a value could not be
/// deleted or written; the failure is logged on the session and the next value follows.
/// A value that holds nothing or one identifier, whichever it is, is deleted. What one interface key has
/// led to is worked on again for each one behind it. Throws RegKeyError at a value that cannot be read
/// as a multi-string. Stands on RegDeleteKeyValueW and RegSetValueExW.
UINT RemoveDmftFromCameraChains(MSIHANDLE session);

}  // namespace corvi
