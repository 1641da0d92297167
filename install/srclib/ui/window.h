// The window and event core: rectangle helpers, the window tree, the message record, the one
// heap-ordered message queue and the vocabulary of message identifiers.
#pragma once

#include "base/tools.h"
#include "graphics/graphics.h"

class CDC;
class CDesktop;
class CDDServer;
class CDDClient;

// ---------------------------------------------------------------------------------------------
// Rectangle and point helpers. Rectangles have inclusive right and bottom edges; the empty
// rectangle the constructors use is (1, 1, 0, 0).

void SetPoint(TPoint* pPt, SHORT x, SHORT y);
void SetRect(TRect* pRect, SHORT nLeft, SHORT nTop, SHORT nRight, SHORT nBottom);
// left = x, top = y, right = x - 1 + w, bottom = y - 1 + h.
void SetRectSize(TRect* pRect, SHORT x, SHORT y, SHORT w, SHORT h);
void GetRectEdges(const TRect* pRect, SHORT* pnLeft, SHORT* pnTop, SHORT* pnRight, SHORT* pnBottom);
void GetRectSize(const TRect* pRect, SHORT* px, SHORT* py, SHORT* pw, SHORT* ph);
// *pA becomes *pA intersected with *pB; the result may be empty.
void IntersectRect(TRect* pA, const TRect* pB);
// *pA becomes the bounding box of both, with no test for empty rectangles.
void UnionRect(TRect* pA, const TRect* pB);
void OffsetRect(TRect* pRect, SHORT dx, SHORT dy);
// left -= l, top -= t, right += r, bottom += b.
void InflateRect(TRect* pRect, SHORT l, SHORT t, SHORT r, SHORT b);
// Moves the rectangle so that its centre ((l + r) / 2, (t + b) / 2, truncated) is *pPt.
void CentreRectOn(TRect* pRect, const TPoint* pPt);
void CentreRectIn(TRect* pRect, const TRect* pOuter);
// Linear map from one rectangle onto another, spans right - left and bottom - top: offset,
// multiply, then truncating divide. A source span of 0 maps every value to the target's edge.
void MapPoint(const TRect* pFrom, const TPoint* pPt, const TRect* pTo, TPoint* pOut);
void MapRect(const TRect* pFrom, const TRect* pRect, const TRect* pTo, TRect* pOut);
// The four strips of *pRect around *pHole (inflated by 1 first). The side strips start one row
// higher than the top strip ends; the overlap is harmless. Any strip may be empty.
void SplitRect(const TRect* pRect, const TRect* pHole, TRect* pLeft, TRect* pTop, TRect* pRight,
               TRect* pBottom);
BOOL IsRectEmpty(const TRect* pRect);
BOOL PointsEqual(const TPoint* pA, const TPoint* pB);
BOOL RectsEqual(const TRect* pA, const TRect* pB);
// Compares red, green and blue; the extra byte is ignored.
BOOL ColorsEqual(const TColor* pA, const TColor* pB);
// Inclusive on all four edges.
BOOL PtInRect(const TPoint* pPt, const TRect* pRect);
// Moves *pPt into *pRect; 1 only if it was inside already.
BOOL ClampPointToRect(TPoint* pPt, const TRect* pRect);
BOOL RectInRect(const TRect* pInner, const TRect* pOuter);
// Moves *pRect, keeping its size, so each edge is inside *pBounds: left, right, top, bottom
// in that order. 1 only if nothing moved.
BOOL PushRectInto(TRect* pRect, const TRect* pBounds);
LONG RectWidth(const TRect* pRect);
LONG RectHeight(const TRect* pRect);
LONG RectArea(const TRect* pRect);

// A point carried in a message parameter: x in the low word, y in the high word.
inline DWORD_PTR PointToParam(const TPoint* pPt) {
  return (DWORD_PTR)(((DWORD)(WORD)pPt->y << 16) | (DWORD)(WORD)pPt->x);
}
inline TPoint ParamToPoint(DWORD_PTR dwParam) {
  TPoint pt;
  pt.x = (SHORT)(WORD)(dwParam & 0xFFFF);
  pt.y = (SHORT)(WORD)((dwParam >> 16) & 0xFFFF);
  return pt;
}

// ---------------------------------------------------------------------------------------------
// Window flags. The low 16 bits are common to all windows; higher bits belong to each class.

#define WF_TRANSPARENT 0x00000001u   // does not paint all its rectangle
#define WF_VISIBLE 0x00000002u       // hit tests and painting skip windows without it
#define WF_CURSOR_TREE 0x00000004u   // its cursor applies over it and its children
#define WF_CURSOR_SELF 0x00000008u   // its cursor applies where no child is hit
#define WF_MAP_COLORS 0x00000010u    // colours must be mapped at the next paint
#define WF_PALETTE_USER 0x00000020u  // has colours to map after every palette change
#define WF_CLIP_DIRTY 0x00000100u    // desktop: dirty rectangles are clipped by windows above
#define WF_SHOW_REDRAW 0x00000200u   // desktop: frames every repainted rectangle
#define WF_LOCKED 0x00000400u        // desktop: redraw held back
#define WF_MODAL 0x00000400u         // dialog: modal
#define WF_DISABLED 0x00000800u      // control: disabled
#define WF_FULL_UPDATE 0x00000800u   // desktop: a flush presents the whole surface

#define WF_DEFAULT 0x32u  // visible, colours to map

// ---------------------------------------------------------------------------------------------
// Message identifiers. Low level ones come from the OS window layer to the desktop; the high
// byte of the low word is the message class.

#define MSG_IDLE 0x0000u
#define MSG_MOUSE_MOVE 0x0101u
#define MSG_LBUTTON_DOWN 0x0111u
#define MSG_LBUTTON_UP 0x0112u
#define MSG_LBUTTON_DBLCLK 0x0113u
#define MSG_RBUTTON_DOWN 0x0121u
#define MSG_RBUTTON_UP 0x0122u
#define MSG_RBUTTON_DBLCLK 0x0123u
#define MSG_KEY_DOWN 0x0201u  // p1: virtual key high word, character low word; p2: modifiers
#define MSG_KEY_UP 0x0202u
#define MSG_CHAR 0x0203u  // p1: character in the low word; p2: modifiers
#define MSG_FOCUS_IN 0x0204u
#define MSG_FOCUS_OUT 0x0205u
#define MSG_DISPLAY_CHANGED 0x0300u
#define MSG_PAINT 0x0400u  // p1: left high, top low; p2: right high, bottom low
#define MSG_PALETTE_CHANGED 0x0500u
#define MSG_CLOSE_QUERY 0x0600u
#define MSG_DEACTIVATED 0x0701u
#define MSG_ACTIVATED 0x0702u
#define MSG_COMMAND 0x0800u
#define MSG_SIZE 0x0900u
#define MSG_OSWND_CLOSED 0x0A00u
#define MSG_OSWND_DESTROYED 0x0B00u
#define MSG_FORCE_MOUSE 0x0C00u
#define MSG_OSWND_FOCUS_IN 0x0D00u
#define MSG_OSWND_FOCUS_OUT 0x0E00u

// Modifier bits of key messages.
#define MOD_ALT 0x1u
#define MOD_CTRL 0x2u

// OnMouse only, never queued.
#define MOUSE_ENTER 1u
#define MOUSE_LEAVE 2u
#define MOUSE_CANCEL 3u

// Control level.
#define MSG_PARENT_RESIZED 0x10001u
#define MSG_INIT_CONTROL 0x10002u
#define MSG_DIALOG_CLOSING 0x10005u
#define MSG_WHO_ARE_YOU 0x10008u
#define MSG_BMP_CLICKED 0x2ADA347u
#define MSG_FRAME_SHOW 0x8008000u
#define MSG_FRAME_HIDE 0x8008001u
#define MSG_FRAME_TO_FRONT 0x8008002u
#define MSG_BUTTON_FIRED 0x12345604u
#define MSG_BUTTON_REPEAT 0x12345605u
#define MSG_BUTTON_STATE 0x12345606u
#define MSG_SCROLL_STEP 0x23432301u
#define MSG_SCROLL_ARROW 0x23432302u
#define MSG_SCROLL_TRACK 0x23432303u
#define MSG_SCROLL_RELEASE 0x23432304u
#define MSG_SCROLL_REPEAT 0x23432315u
#define MSG_EDIT_FIRST 0x8820000u
#define MSG_EDIT_LAST 0x8820008u
#define MSG_LIST_FIRST 0x8830000u
#define MSG_LIST_LAST 0x8830002u
#define MSG_TREE_FIRST 0xC100001u
#define MSG_TREE_LAST 0xC100009u

// ---------------------------------------------------------------------------------------------
// The message record.

// Target kinds.
#define MK_CANCELLED 0
#define MK_FUNCTION 2
#define MK_OBJECT 3
#define MK_WINDOW 0x10
// Source kinds.
#define MK_NONE 0
#define MK_TERMINAL 8
#define MK_OSWND 9

struct TMessage {
  SHORT nTargetKind;  // 0 once cancelled
  DWORD_PTR pTarget;  // function, handler object or window
  SHORT nSourceKind;  // 0 when none or gone
  DWORD_PTR pSource;
  DWORD dwId;
  DWORD_PTR dwParam1;
  DWORD_PTR dwParam2;
  DWORD dwTime;    // tick count at posting
  DWORD dwDue;     // tick count at which it is delivered
  DWORD dwSerial;  // posting serial; 0 for toolkit timers
};

// Target of kind 2.
typedef DWORD_PTR (*PFN_MSGFUNC)(TMessage* pMsg);

// Target of kind 3: an object whose handler operation receives the record.
class CMsgObject : public CObject {
  DECLARE_CLASS()
 public:
  virtual DWORD_PTR HandleMsg(TMessage* pMsg) = 0;
};

// A queue filter: returns 0 when it consumed the record (its result then in *pResult), else
// non-zero to let the record go on.
typedef DWORD (*PFN_MSGFILTER)(TMessage* pMsg, DWORD_PTR* pResult);

struct TMsgFilter {
  DWORD dwPriority;
  PFN_MSGFILTER pfnFilter;
};

#define ERR_MSGHEAP_FULL 0x345353u       // Push on a full heap: the message is lost
#define ERR_MSGHEAP_NOARRAY 0xFFFFFFFFu  // Push on a heap that has no array

// The single queue: a binary heap of records by due time, then by serial number, and a list
// of filters by descending priority that see every record before it is dispatched.
class CMsgHeap : public CObject {
  DECLARE_CLASS()
 public:
  // Without memory for either array the heap works without it (Push fails, AddFilter fails).
  CMsgHeap(WORD wMaxMsgs, WORD wMaxFilters);
  ~CMsgHeap() override;

  // Runs the record by its target kind: 2 a function, 3 a handler object; others give 0.
  virtual DWORD_PTR Dispatch(TMessage* pMsg);
  // Delivers at most nMax records due at or before dwNow, in order. Returns how many ran.
  virtual DWORD Process(DWORD dwNow, DWORD nMax);
  // dwDue of the next record, or 0xFFFFFFFF when empty.
  virtual DWORD NextDue();
  // Removes the next record into *pMsg. 0, or ERR_NOTFOUND when empty.
  virtual ERR Pop(TMessage* pMsg);
  // Address of the record at heap position wIndex (0 is the next one); ERR_BADINDEX past the
  // count. The address is valid until the heap next changes.
  virtual ERR Peek(WORD wIndex, TMessage** ppMsg);
  virtual WORD Count();
  // Marks one record cancelled in place; it stays queued until due and then yields nothing.
  virtual void Cancel(WORD wIndex);
  // Cancels every record targeted at pObject and clears the source of every record sent by it.
  virtual void CancelFor(const void* pObject);
  // Filters of equal priority: the newest runs first. 0xFFFE when the table is full or missing.
  virtual ERR AddFilter(PFN_MSGFILTER pfnFilter, DWORD dwPriority);
  // 0xFFFE when the filter is not installed.
  virtual ERR RemoveFilter(PFN_MSGFILTER pfnFilter);
  // Copies the record into the heap. 0, ERR_MSGHEAP_FULL or ERR_MSGHEAP_NOARRAY.
  virtual ERR Push(const TMessage* pMsg);
  // Cancelled records give 0; otherwise the filters in order, then Dispatch.
  virtual DWORD_PTR DispatchFiltered(TMessage* pMsg);

  WORD m_wMaxMsgs;
  WORD m_wMsgs;
  TMessage* m_pMsgs;
  WORD m_wMaxFilters;
  WORD m_wFilters;
  TMsgFilter* m_pFilters;
};

// The queue of the window toolkit: adds the dispatch of records targeted at windows.
class CWindowMsgHeap : public CMsgHeap {
  DECLARE_CLASS()
 public:
  CWindowMsgHeap(WORD wMaxMsgs, WORD wMaxFilters);
  // Kind 0x10 goes to the window's HandleMessage (0 for a null window); others as the base.
  DWORD_PTR Dispatch(TMessage* pMsg) override;
};

// ---------------------------------------------------------------------------------------------
// CWindow: the base of everything on screen. All windows share one coordinate space (the
// desktop's); a window owns its children and deletes them in its destructor.

class CWindow : public CObject {
  DECLARE_CLASS()
 public:
  // Links the window at the front of pParent's children with redraw. A null rectangle gives
  // the empty (1, 1, 0, 0). WF_PALETTE_USER brings WF_MAP_COLORS with it. With no parent the
  // window has no desktop until it is given one by SetParent or AddChild.
  CWindow(CWindow* pParent, const TRect* pRect, DWORD dwFlags);
  // Deletes all children, unlinks itself without redraw and makes the desktop forget it (so
  // no queued message and no desktop pointer names it afterwards).
  ~CWindow() override;

  virtual void GetRect(TRect* pRect);
  // Nothing if unchanged. bMoveChildren moves the children by the same offset; bRedraw
  // invalidates the four strips uncovered and then the new rectangle.
  virtual void SetRect(const TRect* pRect, BOOL bRedraw, BOOL bMoveChildren);
  virtual DWORD GetFlags();
  virtual void SetFlags(DWORD dwFlags, BOOL bRedraw);
  virtual DWORD GetId();
  // First direct child, front to back, whose GetId is dwId; null when none.
  virtual CWindow* FindChild(DWORD dwId);
  // Drawing before and after the children, clipped to *pRect (desktop coordinates).
  virtual void Paint(CDC* pDC, const TRect* pRect);
  virtual void PaintOver(CDC* pDC, const TRect* pRect);
  // Adds *pRect (m_Rect when null), clipped by the ancestors, to the desktop's dirty list;
  // nothing when an ancestor is hidden. bFlag has no effect here.
  virtual void Invalidate(const TRect* pRect, BOOL bFlag);
  virtual BOOL HitTest(const TPoint* pPt);
  // First child, front to back, whose HitTest says 1.
  virtual CWindow* ChildAt(const TPoint* pPt);
  // Null if this window's HitTest fails, else the deepest window under the point.
  virtual CWindow* DeepChildAt(const TPoint* pPt);
  virtual BOOL IsUnobscured(const TRect* pRect);
  // The deepest window under the point, updating *ppCursor with the applicable cursor.
  virtual CWindow* FindTarget(const TPoint* pPt, CCursor** ppCursor);
  // Returns the handler's result; 0 here.
  virtual DWORD_PTR HandleMessage(TMessage* pMsg);
  virtual void OnKey(DWORD dwId, WORD wVirtualKey, WORD wChar);
  virtual void OnMouse(DWORD dwId, const TPoint* pPt);
  // Drag-and-drop hooks: the server or client offered under the point, or null.
  virtual CDDServer* DragSourceAt(const TPoint* pPt);
  virtual CDDClient* DropTargetAt(const TPoint* pPt);

  BOOL IsFlag(DWORD dwMask);
  void ChangeFlags(DWORD dwSet, DWORD dwClear, BOOL bRedraw);
  void ToGlobal(TPoint* pPt);
  void ToGlobal(TRect* pRect);
  void ToLocal(TPoint* pPt);
  void ToLocal(TRect* pRect);
  CWindow* GetParent() { return m_pParent; }
  void SetParent(CWindow* pParent, BOOL bRedraw);
  CWindow* GetNext() { return m_pNext; }
  CWindow* GetPrev() { return m_pPrev; }
  CWindow* GetFirstChild() { return m_pFirstChild; }
  CWindow* GetLastChild() { return m_pLastChild; }
  BOOL HasChild(CWindow* pChild);
  CDesktop* GetDesktop() { return m_Desktop; }
  // Links at the front (AddChild) or the back; a child of another window is unlinked first.
  void AddChild(CWindow* pChild, BOOL bRedraw);
  void AddChildBack(CWindow* pChild, BOOL bRedraw);
  // 0 unless pChild's parent is this window.
  BOOL RemoveChild(CWindow* pChild, BOOL bRedraw);
  void BringToFront(CWindow* pChild, BOOL bRedraw);
  void SendToBack(CWindow* pChild, BOOL bRedraw);
  // Paints the visible children back to front, each clipped to its part of *pRect; the clip is
  // *pRect again afterwards.
  void PaintChildren(CDC* pDC, const TRect* pRect);
  // Queues a record for pTarget, due after dwDelay ms, serial 0. Nothing without a desktop,
  // OS window, terminal or queue; a full queue loses the message.
  void PostTo(CWindow* pTarget, DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, DWORD dwDelay);
  // Runs the same record at once through the filters; the handler's result, or 0 without the
  // chain.
  DWORD_PTR SendTo(CWindow* pTarget, DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2, DWORD dwPad);

  CDesktop* m_Desktop;
  CWindow* m_pParent;
  TRect m_Rect;
  CWindow* m_pNext;
  CWindow* m_pPrev;
  CWindow* m_pFirstChild;
  CWindow* m_pLastChild;
  DWORD m_dwFlags;
  CCursor* m_pCursor;

 protected:
  // The desktop's own constructor: no parent, flags WF_DEFAULT.
  explicit CWindow(CDesktop* pDesktop);
  // Sets the desktop's mouse flag, then invalidates the rectangle.
  void Redraw(const TRect* pRect);
  // The desktop's queue, or null when any link of the chain is missing.
  CMsgHeap* Queue();
  // Fills a kind 0x10 record from this window to pTarget; 0 when the chain is missing.
  BOOL MakeRecord(TMessage* pMsg, CWindow* pTarget, DWORD dwId, DWORD_PTR dwParam1, DWORD_PTR dwParam2,
                  DWORD dwDelay);

 private:
  void Unlink(CWindow* pChild);
  static void SetDesktopTree(CWindow* pWindow, CDesktop* pDesktop);
};
