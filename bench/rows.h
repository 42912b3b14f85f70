#pragma once

#include "bench/harness.h"

namespace corvi::bench {

/// The jobs that are measured. Each keeps its state in its ways: files below C:\corvi, keys below
/// SOFTWARE\CorviBench and those of the installer in the throwaway machine.

Row DeleteFolderRow();
Row ListKeyPathsRow();
Row ListKeyPathsGrowthRow();
Row RunCommandlineRow();
Row LibraryLoadRow();
Row RemoveProductRegistrationRow();
Row RemoveProductRegistrationGrowthRow();
Row RewriteTaskFileRow();
Row InstallerCallsRow();
Row PackageCheckRow();
Row PlanRow();
Row ExplainLogRow();

}  // namespace corvi::bench
