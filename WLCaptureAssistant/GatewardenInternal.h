#ifndef GATEWARDEN_INTERNAL_H
#define GATEWARDEN_INTERNAL_H
/* The protocol's building blocks, shared by the client and the helper and
   open to the tests and the fuzz target; errno values, not statuses. */

#include "GatewardenLib.h"

#ifdef __cplusplus
extern "C" {
#endif

int GWDRead(int fd, void* buffer, size_t size);
int GWDWrite(int fd, const void* buffer, size_t size);
int GWDReadDictionary(int fd, plist_t* dictionary);
int GWDWriteDictionary(int fd, plist_t dictionary);
int GWDReadDescriptor(int fd, int* descriptor);
int GWDWriteDescriptor(int fd, int descriptor);
int GWDWriteDictionaryAndDescriptors(int fd, plist_t dictionary);
int GWDReadDictioanaryTranslatingDescriptors(int fd, plist_t* dictionary);
int GWDIsBinaryPropertyListData(const void* bytes, size_t length);
/* A status, as the client reports it. */
int32_t FindCommand(plist_t request, const GWDCommandSpec commands[], size_t* commandIndex);
int HandleConnection(int fd, const GWDCommandSpec commands[], const GWDCommandProc commandProcs[]);
int32_t NormaliseOSStatusErrorCode(int32_t status);

/* Runs a system tool (found on PATH) with its standard streams on /dev/null:
   its exit status, or -1 when it could not run or was killed. */
int GWDRunTool(char* const argv[]);

/* Nesting deeper than this is refused before parsing: libplist recurses when
   it frees a tree, so a deep enough body would exhaust the helper's stack. */
#define kGWDMaxNestingDepth 64

#ifdef __cplusplus
}
#endif

#endif
