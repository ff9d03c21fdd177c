#include "WLCaptureAssistantCommon.h"

#include <stddef.h>

const GWDCommandSpec kWLUpdateHelperCommandSet[] = {
    {kWLVerifyPrivsCommand, NULL, NULL, NULL, NULL},
    {kWLShutdownHelperCommand, NULL, NULL, NULL, NULL},
    {kWLSetBPFAccessCommand, NULL, NULL, NULL, NULL},
    {NULL, NULL, NULL, NULL, NULL},
};
