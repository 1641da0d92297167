// Opens arbitrary bytes as a pool file, then reads, allocates, frees, locks, compacts and
// closes it.
#include <stdint.h>
#include <string.h>

#include <vector>

#include "base/filepool.h"
#include "fuzzfile.h"
#include "platform/platform.h"

namespace {

// The client: the blocks it allocated, in allocation order.
struct TClient {
  std::vector<DWORD> ids;
};

ERR Move(DWORD dwOld, DWORD dwNew, void* pData) {
  for (DWORD& id : static_cast<TClient*>(pData)->ids)
    if (id == dwOld) {
      id = dwNew;
      return 0;
    }
  return ERR_NOTFOUND;
}

DWORD GetBlock(DWORD dwIndex, void* pData) {
  TClient* pClient = static_cast<TClient*>(pData);
  return dwIndex < pClient->ids.size() ? pClient->ids[dwIndex] : 0;
}

int Ignore(const char*) { return ASSERT_IGNORE; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
  PlatSetDebugEcho(FALSE);
  g_pfnAssertAnswer = Ignore;
  if (!nSize) return 0;
  BOOL bReadOnly = pData[0] & 1;
  std::vector<BYTE> file(pData + 1, pData + nSize);
  TClient client;
  CFilePool pool;
  pool.SetCallbackData(&client);
  if (pool.Open(new CFuzzFile(&file), Move, GetBlock, bReadOnly)) return 0;
  BYTE buf[64];
  // Blocks named by the first free entries and by the header's data start.
  for (DWORD i = 0; i < pool.GetFreeCount() && i < 4; i++) {
    DWORD h = pool.GetFreeList()[i].dwPos + 4;
    pool.GetSize(h);
    pool.Read(h, buf, 0, sizeof(buf));
  }
  pool.Read(0x28, buf, 0, sizeof(buf));
  if (!bReadOnly) {
    for (DWORD i = 0; i < 6; i++) {
      DWORD h = pool.Alloc(16 + i * 40);
      if (!h) continue;
      client.ids.push_back(h);
      memset(buf, (int)i, sizeof(buf));
      pool.Write(h, buf, 0, 16);
    }
    if (client.ids.size() > 2) {
      pool.Free(client.ids[0]);
      client.ids.erase(client.ids.begin());
      void* p = pool.Lock(client.ids[0]);
      if (p) pool.Unlock(client.ids[0]);
      DWORD h = pool.ReAlloc(client.ids[1], 500);
      if (h) client.ids[1] = h;
    }
    for (int i = 0; i < 50 && pool.CompactStep() == 0; i++) {
    }
  }
  pool.Close();
  return 0;
}
