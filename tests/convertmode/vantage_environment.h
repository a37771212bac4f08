// The settings file of a conversion-mode test program: each program defines kVantageIni,
// which is written to "vantage.ini" in a fresh directory that QR_BIN names.
#ifndef VANTAGE_ENVIRONMENT_H
#define VANTAGE_ENVIRONMENT_H

#include "../associativearray/assoc_test_util.h"

#include <string>

extern char const kVantageIni[];

// The path of the settings file written for this process.
std::string gVantagePath();

#endif
