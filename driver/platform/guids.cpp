// Defines, in this one translation unit, every GUID the platform declares.
#define INITGUID
#include "platform.h"
