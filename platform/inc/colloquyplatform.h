// Every service of the ColloquyPlatform library.
#ifndef COLLOQUY_COLLOQUYPLATFORM_H
#define COLLOQUY_COLLOQUYPLATFORM_H

#include "codepage.h"
#include "cplatformdefs.h"
#include "envsettings.h"
#include "kzexception.h"
#include "nlog.h"
#include "nsocket.h"
#include "ntime.h"
#include "qrprocess.h"
#include "rwcollect.h"
#include "rwcollection.h"
#include "rwcstring.h"
#include "rwhashdict.h"
#include "rwhashtable.h"
#include "rwordered.h"
#include "staticlife.h"
#include "stringcoe.h"

#endif
