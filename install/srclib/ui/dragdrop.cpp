// Drag and drop between windows: a queue filter watches the mouse, a server offers an object
// at a press, the object travels with the mouse and a client takes or refuses it at release.
#include "ui/dragdrop.h"

#include "ui/desktop.h"

CDDManager* g_pDDManager = 0;
void* g_pDDPressWnd = 0;

IMPLEMENT_CLASS(CDDObject, 0xC995E23, CObject)
IMPLEMENT_CLASS(CDDServer, 0xC85E566, CObject)
IMPLEMENT_CLASS(CDDClient, 0xC567676, CObject)
IMPLEMENT_CLASS(CDDManager, 0xC457578, CObject)

CDDObject::CDDObject(DWORD dwType, CBitmap* pImage, DWORD_PTR dwData1, DWORD_PTR dwData2) {
  m_dwType = dwType;
  m_dwData1 = dwData1;
  m_dwData2 = dwData2;
  m_pServer = 0;
  m_pClient = 0;
  m_bAccepted = FALSE;
  SetPoint(&m_StartPoint, 0, 0);
  SetPoint(&m_Point, 0, 0);
  m_pNoTargetCursor = m_pAcceptCursor = m_pRefuseCursor = m_pForcedCursor = 0;
  m_pImage = pImage;
}

CDDObject* CDDServer::CreateObject(const TPoint*) { return 0; }
void CDDServer::DropDone(CDDObject*) {}
void CDDServer::DropFailed(CDDObject*) {}

BOOL CDDClient::Drop(CDDObject*) { return FALSE; }
BOOL CDDClient::Enter(CDDObject*) { return FALSE; }
void CDDClient::Leave(CDDObject*) {}

CDDManager::CDDManager() {
  m_pObject = 0;
  m_nButton = 0;
  m_pCursor = m_pNoTargetCursor = m_pAcceptCursor = m_pRefuseCursor = 0;
  m_dwPressTime = 0;
  SetPoint(&m_PressPoint, 0, 0);
  m_pPressServer = 0;
  m_dwDelay = DD_DEFAULT_DELAY;
  SetPoint(&m_Threshold, 5, 5);
}

CDDManager::~CDDManager() { delete m_pObject; }

void CDDManager::Attach(CDDObject* pObject, SHORT nButtons) {
  if (m_pObject || !pObject || !(nButtons & 1)) return;
  m_pObject = pObject;
  m_nButton = (SHORT)(nButtons & 1);
}

void CDDManager::BeginDrag(CDDServer* pServer, const TPoint* pPt, SHORT nButtons) {
  if (m_pObject || !pServer) return;
  CDDObject* pObject = pServer->CreateObject(pPt);
  if (!pObject) return;
  pObject->m_pServer = pServer;
  pObject->m_pClient = 0;
  pObject->m_StartPoint = *pPt;
  pObject->m_Point = *pPt;
  m_PressPoint = *pPt;
  Attach(pObject, nButtons);
  if (m_pObject != pObject) delete pObject;  // not taken (a right-button press): nobody holds it
}

void CDDManager::TrackTo(CDDObject* pObject, CDDClient* pClient, const TPoint* pPt) {
  if (!pObject) return;
  if (pObject->m_pClient != pClient) {
    if (pObject->m_pClient) pObject->m_pClient->Leave(pObject);
    pObject->m_pClient = pClient;
    pObject->m_pForcedCursor = 0;
    pObject->m_bAccepted = FALSE;
    if (pClient) pObject->m_bAccepted = pClient->Enter(pObject);
  }
  pObject->m_Point = *pPt;
}

void CDDManager::GetCursor(CCursor** ppCursor) {
  CDDObject* p = m_pObject;
  if (!p) return;
  // The forced cursor is set first and always replaced by the rules below.
  if (p->m_pClient && p->m_pForcedCursor) *ppCursor = p->m_pForcedCursor;
  if (!p->m_pClient)
    *ppCursor = p->m_pNoTargetCursor ? p->m_pNoTargetCursor : m_pNoTargetCursor;
  else if (!p->m_bAccepted)
    *ppCursor = p->m_pRefuseCursor ? p->m_pRefuseCursor : m_pRefuseCursor;
  else
    *ppCursor = p->m_pAcceptCursor ? p->m_pAcceptCursor : m_pAcceptCursor;
}

static inline int AbsDiff(int a, int b) { return a > b ? a - b : b - a; }

BOOL CDDManager::OnMouseMessage(CDDServer* pServer, CDDClient* pClient, DWORD dwId, const TPoint* pPt,
                                DWORD dwTime) {
  switch (dwId) {
    case MSG_LBUTTON_DOWN:
    case MSG_RBUTTON_DOWN:
      if (!m_nButton && pServer) {
        m_nButton = dwId == MSG_LBUTTON_DOWN ? 1 : 2;
        m_PressPoint = *pPt;
        m_dwPressTime = dwTime;
        m_pPressServer = pServer;
      }
      return TRUE;
    case MSG_MOUSE_MOVE:
      if (!m_nButton) return TRUE;
      if (m_pObject) {
        TrackTo(m_pObject, pClient, pPt);
        return TRUE;
      }
      if (AbsDiff(pPt->x, m_PressPoint.x) < m_Threshold.x &&
          AbsDiff(pPt->y, m_PressPoint.y) < m_Threshold.y && dwTime - m_dwPressTime < m_dwDelay)
        return TRUE;
      m_dwPressTime -= m_dwDelay;
      BeginDrag(m_pPressServer, &m_PressPoint, m_nButton);
      m_pPressServer = 0;
      return TRUE;
    case MSG_LBUTTON_UP:
    case MSG_RBUTTON_UP: {
      if (!m_nButton) return TRUE;
      if ((dwId == MSG_LBUTTON_UP && m_nButton == 1) || (dwId == MSG_RBUTTON_UP && m_nButton == 2))
        m_nButton = 0;
      if (m_nButton || !m_pObject) return TRUE;
      CDDObject* pObject = m_pObject;
      CDDClient* pTarget = pObject->m_pClient;
      CDDServer* pFrom = pObject->m_pServer;
      if (pTarget && pTarget->Drop(pObject)) {
        if (pFrom) pFrom->DropDone(pObject);
      } else if (pFrom) {
        pFrom->DropFailed(pObject);
      }
      m_pObject = 0;
      delete pObject;
      return FALSE;
    }
    default:
      return TRUE;
  }
}

DWORD DragDropFilter(TMessage* pMsg, DWORD_PTR* pResult) {
  if (!g_pDDManager || pMsg->nSourceKind != MK_OSWND || pMsg->nTargetKind != MK_WINDOW || !pMsg->pSource ||
      !pMsg->pTarget)
    return 1;
  if ((pMsg->dwId & 0xFF00) != 0x0100) return 1;  // only mouse records carry a point
  CWindow* pDesktop = reinterpret_cast<CWindow*>(pMsg->pTarget);
  const TPoint pt = ParamToPoint(pMsg->dwParam1);
  CDDServer* pServer = 0;
  if (pMsg->dwId == MSG_LBUTTON_DOWN || pMsg->dwId == MSG_RBUTTON_DOWN) {
    pServer = pDesktop->DragSourceAt(&pt);
    g_pDDPressWnd = reinterpret_cast<void*>(pMsg->pSource);
  }
  if (reinterpret_cast<void*>(pMsg->pSource) != g_pDDPressWnd && !g_pDDManager->m_pObject) return 1;
  CDDClient* pClient = g_pDDManager->m_pObject ? pDesktop->DropTargetAt(&pt) : 0;
  const BOOL bPass = g_pDDManager->OnMouseMessage(pServer, pClient, pMsg->dwId, &pt, pMsg->dwDue);
  if (!bPass) *pResult = 0;
  return bPass ? 1 : 0;
}

ERR InstallDragDrop(CMsgHeap* pMsgHeap) {
  if (g_pDDManager) return 0;
  g_pDDManager = new CDDManager();
  if (!g_pDDManager) return ERR_ALLOCFAIL;
  if (pMsgHeap) pMsgHeap->RemoveFilter(DragDropFilter);  // left by an earlier RemoveDragDrop
  const ERR err = pMsgHeap ? pMsgHeap->AddFilter(DragDropFilter, 0) : ERR_BADPARAM;
  if (err) RemoveDragDrop();
  return err;
}

void RemoveDragDrop() {
  delete g_pDDManager;
  g_pDDManager = 0;
  g_pDDPressWnd = 0;
}
