// Drag and drop between windows: a queue filter watches the mouse, a server offers an object
// at a press, the object travels with the mouse and a client takes or refuses it at release.
#pragma once

#include "ui/window.h"

// What is dragged. The manager owns it while the drag runs and frees it at the release.
class CDDObject : public CObject {
  DECLARE_CLASS()
 public:
  // pImage is drawn at the mouse by the desktop while the drag runs; it is not owned.
  CDDObject(DWORD dwType, CBitmap* pImage, DWORD_PTR dwData1, DWORD_PTR dwData2);

  DWORD GetType() { return m_dwType; }
  DWORD_PTR GetData1() { return m_dwData1; }
  DWORD_PTR GetData2() { return m_dwData2; }

  DWORD m_dwType;
  DWORD_PTR m_dwData1;
  DWORD_PTR m_dwData2;
  class CDDServer* m_pServer;
  class CDDClient* m_pClient;
  BOOL m_bAccepted;
  TPoint m_StartPoint;
  TPoint m_Point;
  CCursor* m_pNoTargetCursor;
  CCursor* m_pAcceptCursor;
  CCursor* m_pRefuseCursor;
  CCursor* m_pForcedCursor;
  CBitmap* m_pImage;
};

// The side a drag starts from; offered by a window's DragSourceAt.
class CDDServer : public CObject {
  DECLARE_CLASS()
 public:
  // A new object to drag from the point, or null (the default) for nothing to drag.
  virtual CDDObject* CreateObject(const TPoint* pPt);
  // The client took the object (DropDone) or there was none or it refused (DropFailed). The
  // object is freed by the manager afterwards.
  virtual void DropDone(CDDObject* pObject);
  virtual void DropFailed(CDDObject* pObject);
};

// The side a drag ends on; offered by a window's DropTargetAt.
class CDDClient : public CObject {
  DECLARE_CLASS()
 public:
  // Non-zero when the object was taken.
  virtual BOOL Drop(CDDObject* pObject);
  // Non-zero when the client would take the object; the cursor shows the answer.
  virtual BOOL Enter(CDDObject* pObject);
  virtual void Leave(CDDObject* pObject);
};

// Milliseconds a press is held before a drag starts without movement.
#define DD_DEFAULT_DELAY 500

class CDDManager : public CObject {
  DECLARE_CLASS()
 public:
  CDDManager();
  // Frees a drag object still held.
  ~CDDManager() override;

  // Takes pObject as the running drag when none runs and bit 0 of nButtons is set.
  virtual void Attach(CDDObject* pObject, SHORT nButtons);
  // Asks the server for an object at the point and attaches it. An object the manager cannot
  // attach is freed again.
  virtual void BeginDrag(CDDServer* pServer, const TPoint* pPt, SHORT nButtons);
  // Moves the drag: Leave and Enter when the client under the mouse changed.
  virtual void TrackTo(CDDObject* pObject, CDDClient* pClient, const TPoint* pPt);
  // During a drag: the cursor for the current client's answer. Nothing otherwise.
  virtual void GetCursor(CCursor** ppCursor);
  // One mouse record: 1 lets it go on, 0 consumes it (the release that ends a drag).
  virtual BOOL OnMouseMessage(CDDServer* pServer, CDDClient* pClient, DWORD dwId, const TPoint* pPt,
                              DWORD dwTime);

  CDDObject* m_pObject;
  SHORT m_nButton;
  CCursor* m_pCursor;
  CCursor* m_pNoTargetCursor;
  CCursor* m_pAcceptCursor;
  CCursor* m_pRefuseCursor;
  DWORD m_dwPressTime;
  TPoint m_PressPoint;
  CDDServer* m_pPressServer;
  DWORD m_dwDelay;
  TPoint m_Threshold;
};

// The one manager, or null.
extern CDDManager* g_pDDManager;
// The OS window the last press came from (a COSWnd), or null.
extern void* g_pDDPressWnd;

// Makes the manager and adds its filter to the queue at priority 0. 0, ERR_ALLOCFAIL, or the
// queue's error (the manager is then deleted again).
ERR InstallDragDrop(CMsgHeap* pMsgHeap);
// Deletes the manager. The filter stays in the queue and lets everything pass.
void RemoveDragDrop();
// The queue filter: 1 passes the record on, 0 consumed it.
DWORD DragDropFilter(TMessage* pMsg, DWORD_PTR* pResult);
