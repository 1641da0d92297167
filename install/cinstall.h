// The program's entry, the fixed start-up and teardown order of every global service, the
// single-instance check and the one-step main loop.
#pragma once

#include "base/types.h"

// Entry arguments, stored by the entry point before anything runs.
extern void* g_hInstance;
extern void* g_hPrevInstance;
extern const char* g_pchCmdLine;
extern int g_nCmdShow;
// Optional named mutex; nothing creates it, so the release at exit never fires.
extern void* g_hMutex;

// Path of a program to start after all teardown; empty means none.
extern char g_szRunAfterExit[256];

class CFile;
class CTerminal;
class COSWnd;
class CDesktop;
// The display and input system, the one top-level window, and the desktop on it.
extern CTerminal* g_pTerminal;
extern COSWnd* g_pOSWnd;
extern CDesktop* g_pDesktop;

// Shows the OS window minimized (non-zero) or maximized (0).
void MinimizeTerminal(BOOL bMinimize);

// The open single-instance marker file, held for the whole run.
extern CFile* g_pMutexFile;

// Opens the marker in the Windows directory; true when it could be created and held.
BOOL StartInstanceLock();
// Deletes the held file object, then removes the file.
void StopInstanceLock();

// Brings the services up in order, runs the session, takes everything down in reverse order
// and prints the peak counters. Returns 0 in practice.
DWORD RunInstaller();

// The entry point's work after its arguments are stored: RunInstaller, the leak report, the
// mutex release. Returns RunInstaller's value.
int SetupMain();
