// The root class CObject, string and memory helpers, hashes, array search and sort, and the
// system's own containers.
#include "tools.h"

// ---------------------------------------------------------------------------------------------
// CObject

DWORD CObject::GetClassId() { return 0; }
const char* CObject::GetClassName() { return "CObject"; }
CObject* CObject::Cast(DWORD dwId) { return dwId == 0 ? this : 0; }
void CObject::Dump() { DebugPrintf("[%s]", GetClassName()); }
