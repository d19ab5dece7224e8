// Declarations of the firmware's device-information library libqelinfo.so.
//
// Each call returns a text that the library owns; the caller does not free it. The host
// stand-in (qelinfo_host.cpp) returns the fixed texts given below.
//
// The functions take nothing and return texts, so the interface does not depend on the
// width of time_t: a daemon built with 64-bit time links the firmware's library as it is.
#pragma once

extern "C" {

// The brand under which the device is sold. Stand-in: "Ardenta".
const char* qelinfo_company_name(void);
// The product's model name. Stand-in: "RV-2000".
const char* qelinfo_product_name(void);
// The router's own name. Stand-in: "ruvo-host".
const char* qelinfo_router_name(void);
// The device serial number. Stand-in: "HOST0000001".
const char* qelinfo_serial(void);

} // extern "C"
