// What vendor_host::Reset puts back, unit by unit.
#pragma once

namespace vendor_host {

void ResetEvents();
void ResetEventLog();
void ResetParams();
void ResetBridge();
void ResetTokens();

}  // namespace vendor_host
