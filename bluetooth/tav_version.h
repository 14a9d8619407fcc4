/// @file
/// The library's version, for programs that are compiled with several.
#pragma once

#define TAV_BLUETOOTH_MAJOR 1  ///< Programs linked with a lower one do not run with this.
#define TAV_BLUETOOTH_MINOR 0  ///< Rises with what is new.
#define TAV_BLUETOOTH_PATCH 0  ///< Rises with what was mended.

/// All in one number, to compare with: 10203 for 1.2.3.
#define TAV_BLUETOOTH_VERSION (TAV_BLUETOOTH_MAJOR * 10000 + TAV_BLUETOOTH_MINOR * 100 + TAV_BLUETOOTH_PATCH)
