#include "platform/params.h"

namespace LPARAMS {

// Never destroyed: other libraries read it from their static destructors.
Server& server = *new Server;

}  // namespace LPARAMS
