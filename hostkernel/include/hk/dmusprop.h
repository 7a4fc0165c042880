// DirectMusic synthesizer properties: the property set a DMus miniport's
// synthesizer nodes answer and the structures it fills.
#pragma once

#include "ks.h"

#include "../../../platform/dmusprop.h"
