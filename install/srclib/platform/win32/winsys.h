// The one way the Windows platform code includes <windows.h>: lean, and without the macros
// whose names collide with member functions of the system (GetClassName, LoadImage, ...).
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
// winnt.h defines MEM_FREE, a page state this code never uses; the tracked-memory macro of
// that name is kept across the include.
#pragma push_macro("MEM_FREE")
#undef MEM_FREE
#include <windows.h>
#undef MEM_FREE
#pragma pop_macro("MEM_FREE")

#undef GetClassName
#undef LoadImage
#undef CreateFont
#undef DrawText
#undef GetObject
#undef CopyFile
#undef MoveFile
#undef DeleteFile
#undef CreateDirectory
#undef RemoveDirectory
#undef FindFirstFile
#undef FindNextFile
#undef GetCurrentDirectory
#undef SetCurrentDirectory
#undef MessageBox
#undef GetMessage
#undef PostMessage
#undef SendMessage
#undef DispatchMessage
#undef PeekMessage
#undef CreateWindow
#undef SetProp
#undef GetProp
#undef RemoveProp
#undef SetCursor
#undef ERROR
