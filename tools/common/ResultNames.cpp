#include "ResultNames.h"

#include "Vyrix_Api.h"

namespace vyrix::tools {

std::string ResultName(uint32_t result) { return Vyrix_GetResultName(static_cast<Vyrix_ReturnStatus>(result)); }

}  // namespace vyrix::tools
