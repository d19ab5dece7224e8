// Host stand-in of libqelinfo.so: fixed device information for development and tests.
#include "platform/qelinfo.h"

extern "C" {

const char* qelinfo_company_name(void) { return "Ardenta"; }
const char* qelinfo_product_name(void) { return "RV-2000"; }
const char* qelinfo_router_name(void) { return "ruvo-host"; }
const char* qelinfo_serial(void) { return "HOST0000001"; }

} // extern "C"
