// The one way the Windows platform code includes <windows.h>: lean, and without the macros
// whose names collide with member functions of the system (GetClassName, LoadImage, ...).
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

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
