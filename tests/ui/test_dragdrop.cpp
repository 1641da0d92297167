// Tests of drag and drop: the press, threshold and delay that start a drag, the client's
// answers, the cursor rules and the release that ends it, through the queue filter.
#include "testutil.h"
#include "ui/dragdrop.h"
#include "uitest.h"

class TestServer : public CDDServer {
 public:
  CDDObject* CreateObject(const TPoint* pPt) override {
    m_nCreated++;
    return m_bOffer ? new CDDObject(7, m_pImage, 11, 22) : nullptr;
  }
  void DropDone(CDDObject* p) override {
    m_nDone++;
    m_dwType = p->GetType();
  }
  void DropFailed(CDDObject*) override { m_nFailed++; }
  bool m_bOffer = true;
  CBitmap* m_pImage = nullptr;
  int m_nCreated = 0, m_nDone = 0, m_nFailed = 0;
  DWORD m_dwType = 0;
};

class TestClient : public CDDClient {
 public:
  BOOL Drop(CDDObject* p) override {
    m_nDrops++;
    m_data1 = p->GetData1();
    return m_bTake;
  }
  BOOL Enter(CDDObject*) override {
    m_nEnters++;
    return m_bAccept;
  }
  void Leave(CDDObject*) override { m_nLeaves++; }
  BOOL m_bTake = TRUE, m_bAccept = TRUE;
  int m_nDrops = 0, m_nEnters = 0, m_nLeaves = 0;
  DWORD_PTR m_data1 = 0;
};

static TPoint P(int x, int y) {
  TPoint p;
  SetPoint(&p, (SHORT)x, (SHORT)y);
  return p;
}

TEST(DragDrop, SmallQuickMoveStartsNothingButDistanceOrTimeDoes) {
  CDDManager m;
  TestServer server;
  TPoint p = P(10, 10);
  EXPECT_EQ(500u, m.m_dwDelay);  // a defined start value
  EXPECT_TRUE(m.OnMouseMessage(&server, nullptr, MSG_LBUTTON_DOWN, &p, 1000));
  TPoint q = P(14, 6);  // 4 on both axes: below the threshold of 5
  EXPECT_TRUE(m.OnMouseMessage(nullptr, nullptr, MSG_MOUSE_MOVE, &q, 1499));
  EXPECT_EQ(nullptr, m.m_pObject);
  EXPECT_EQ(0, server.m_nCreated);
  TPoint r = P(15, 10);  // 5 on one axis
  m.OnMouseMessage(nullptr, nullptr, MSG_MOUSE_MOVE, &r, 1499);
  ASSERT_NE(nullptr, m.m_pObject);
  EXPECT_EQ(&server, m.m_pObject->m_pServer);
  EXPECT_EQ(10, m.m_pObject->m_StartPoint.x);  // from the press point
  EXPECT_EQ(nullptr, m.m_pPressServer);
  // A held press starts a drag after the delay without moving.
  CDDManager m2;
  m2.OnMouseMessage(&server, nullptr, MSG_LBUTTON_DOWN, &p, 1000);
  m2.OnMouseMessage(nullptr, nullptr, MSG_MOUSE_MOVE, &p, 1500);
  EXPECT_NE(nullptr, m2.m_pObject);
  EXPECT_EQ(500u, m2.m_dwPressTime);  // moved back by the delay
}

TEST(DragDrop, ReleaseOfTheOtherButtonDoesNotEndTheDrag) {
  CDDManager m;
  TestServer server;
  TestClient client;
  TPoint p = P(0, 0), far = P(50, 50);
  m.OnMouseMessage(&server, nullptr, MSG_LBUTTON_DOWN, &p, 0);
  m.OnMouseMessage(nullptr, &client, MSG_MOUSE_MOVE, &far, 1);
  m.OnMouseMessage(nullptr, &client, MSG_MOUSE_MOVE, &far, 2);  // tracks onto the client
  ASSERT_NE(nullptr, m.m_pObject);
  EXPECT_EQ(1, client.m_nEnters);
  EXPECT_TRUE(m.OnMouseMessage(nullptr, &client, MSG_RBUTTON_UP, &far, 3));
  EXPECT_NE(nullptr, m.m_pObject);
  EXPECT_FALSE(m.OnMouseMessage(nullptr, &client, MSG_LBUTTON_UP, &far, 4));  // consumed
  EXPECT_EQ(nullptr, m.m_pObject);
  EXPECT_EQ(1, client.m_nDrops);
  EXPECT_EQ(11u, client.m_data1);
  EXPECT_EQ(1, server.m_nDone);
  EXPECT_EQ(7u, server.m_dwType);
  EXPECT_EQ(0, server.m_nFailed);
}

TEST(DragDrop, RefusingClientOrNoClientGivesDropFailed) {
  TestServer server;
  TestClient client;
  client.m_bTake = FALSE;
  for (int withClient = 0; withClient < 2; withClient++) {
    CDDManager m;
    TPoint p = P(0, 0), far = P(30, 0);
    CDDClient* c = withClient ? &client : nullptr;
    m.OnMouseMessage(&server, nullptr, MSG_LBUTTON_DOWN, &p, 0);
    m.OnMouseMessage(nullptr, c, MSG_MOUSE_MOVE, &far, 1);
    m.OnMouseMessage(nullptr, c, MSG_MOUSE_MOVE, &far, 2);
    EXPECT_FALSE(m.OnMouseMessage(nullptr, c, MSG_LBUTTON_UP, &far, 3));
  }
  EXPECT_EQ(2, server.m_nFailed);
  EXPECT_EQ(0, server.m_nDone);
  EXPECT_EQ(1, client.m_nDrops);
}

TEST(DragDrop, CursorFollowsTheClientsAnswer) {
  CDDManager m;
  CBitmap bmp;
  TPoint hot = {0, 0};
  CCursor none(&bmp, &hot, 0), yes(&bmp, &hot, 0), no(&bmp, &hot, 0), own(&bmp, &hot, 0),
      forced(&bmp, &hot, 0);
  m.m_pNoTargetCursor = &none;
  m.m_pAcceptCursor = &yes;
  m.m_pRefuseCursor = &no;
  CCursor* cur = nullptr;
  m.GetCursor(&cur);
  EXPECT_EQ(nullptr, cur);  // no drag: untouched
  CDDObject* obj = new CDDObject(1, nullptr, 0, 0);
  m.Attach(obj, 1);
  ASSERT_EQ(obj, m.m_pObject);
  m.GetCursor(&cur);
  EXPECT_EQ(&none, cur);
  TestClient a, b;
  b.m_bAccept = FALSE;
  TPoint p = P(1, 1);
  m.TrackTo(obj, &a, &p);
  obj->m_pForcedCursor = &forced;  // always overwritten by the rules
  m.GetCursor(&cur);
  EXPECT_EQ(&yes, cur);
  obj->m_pAcceptCursor = &own;
  m.GetCursor(&cur);
  EXPECT_EQ(&own, cur);
  m.TrackTo(obj, &b, &p);
  EXPECT_EQ(1, a.m_nLeaves);
  EXPECT_EQ(nullptr, obj->m_pForcedCursor);
  m.GetCursor(&cur);
  EXPECT_EQ(&no, cur);
  // A second object is refused while one runs; right-button attach is refused too.
  CDDObject* other = new CDDObject(2, nullptr, 0, 0);
  m.Attach(other, 1);
  EXPECT_EQ(obj, m.m_pObject);
  CDDManager m2;
  m2.Attach(other, 2);
  EXPECT_EQ(nullptr, m2.m_pObject);
  delete other;
}

#if UI_HAVE_HEADLESS
TEST(DragDrop, FilterDrivesADragBetweenWindowsAndTheDesktopDrawsTheImage) {
  Toolkit tk(64, 48);
  ASSERT_EQ(0u, InstallDragDrop(tk.heap));
  TestServer server;
  TestClient client;
  CBitmap image;
  ASSERT_EQ(0u, image.Create(3, 3, BF_8BIT, nullptr, BL_FORWARD, 0));
  {
    CMemoryDC dc(&image);
    TRect rc;
    image.GetRect(&rc);
    dc.FillRect(&rc, 77);
  }
  server.m_pImage = &image;
  CTestWnd* from = new CTestWnd(tk.desk, 0, 0, 29, 47, 1);
  CTestWnd* to = new CTestWnd(tk.desk, 30, 0, 63, 47, 2);
  from->m_pServer = &server;
  to->m_pClient = &client;
  tk.wnd->FeedMouseButton(MSG_LBUTTON_DOWN, 5, 5);
  tk.wnd->FeedMouseMove(20, 5);  // past the threshold: the drag starts
  tk.wnd->FeedMouseMove(40, 10);
  tk.Run();
  ASSERT_NE(nullptr, g_pDDManager->m_pObject);
  EXPECT_EQ(1, client.m_nEnters);
  // The desktop draws the image at the mouse when the area is repainted.
  tk.desk->Invalidate(nullptr, FALSE);
  tk.Run();
  EXPECT_EQ(77u, tk.wnd->GetScreenPixel(41, 11));
  EXPECT_EQ(2u, tk.wnd->GetScreenPixel(44, 13));
  const size_t before = to->m_mouse.size();
  tk.wnd->FeedMouseButton(MSG_LBUTTON_UP, 40, 10);
  tk.Run();
  EXPECT_EQ(1, server.m_nDone);
  EXPECT_EQ(nullptr, g_pDDManager->m_pObject);
  // The release was consumed: the window under the mouse did not get it.
  for (size_t i = before; i < to->m_mouse.size(); i++) EXPECT_NE(MSG_LBUTTON_UP, to->m_mouse[i].id);
  RemoveDragDrop();
  EXPECT_EQ(nullptr, g_pDDManager);
  // Without the manager the filter lets everything pass.
  tk.wnd->FeedMouseButton(MSG_LBUTTON_UP, 40, 10);
  tk.Run();
  EXPECT_EQ(MSG_LBUTTON_UP, to->m_mouse.back().id);
}
#endif
