// Export mark of the host libraries. The libraries are built with hidden visibility; what carries this mark is
// their interface.
#pragma once

#define PLATFORM_API __attribute__((visibility("default")))
