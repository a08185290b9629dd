// Bionic's limits on a property's name and value, which <cutils/properties.h>
// takes from here. A build on a host C library uses this copy.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
