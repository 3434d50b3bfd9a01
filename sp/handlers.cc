// Which handler answers which function code.
#include "sp/handlers.h"

#include "sp/close.h"
#include "sp/getextendedmap.h"
#include "sp/getinitialmap.h"
#include "sp/getvolume.h"
#include "sp/sendstringcmd.h"
#include "sp/setsize.h"
#include "spmsgs.h"
#include "utils/lanserver.h"

namespace kestrix {

void RegisterHandlers(LanServerInfo* server) {
  LAN_RegisterMessageHandler(server, SP_FUNC_GETVOLUME, SP_LanGetVolume);
  LAN_RegisterMessageHandler(server, SP_FUNC_GETINITIALMAP, SP_LanGetInitialMap);
  LAN_RegisterMessageHandler(server, SP_FUNC_GETEXTENDEDMAP, SP_LanGetExtendedMap);
  LAN_RegisterMessageHandler(server, SP_FUNC_SETSIZE, SP_LanSetSize);
  LAN_RegisterMessageHandler(server, SP_FUNC_CLOSE, SP_LanClose);
  LAN_RegisterMessageHandler(server, SP_FUNC_SENDSTRINGCMD, SP_LanSendStringCmd);
}

}  // namespace kestrix
