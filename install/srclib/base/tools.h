// The root class CObject, string and memory helpers, hashes, array search and sort, and the
// system's own containers.
#pragma once

#include <stddef.h>

#include "memalloc.h"
#include "twvmerr.h"
#include "types.h"

// ---------------------------------------------------------------------------------------------
// CObject: root of the class tree. Objects are allocated through MemNewObject and released
// through MemDelete, so they count against the object limit and appear in the leak report.

class CObject {
 public:
  CObject() {}
  virtual DWORD GetClassId();
  virtual const char* GetClassName();
  // The object if dwId is its class's identifier (or a base class's), else null.
  virtual CObject* Cast(DWORD dwId);
  // Prints "[ClassName]" through DebugPrintf.
  virtual void Dump();
  virtual ~CObject() {}

  // Non-throwing: a null result makes `new` yield null without running the constructor.
  static void* operator new(size_t nSize) noexcept;
  static void operator delete(void* p);

 private:
  CObject(const CObject&) = delete;
  CObject& operator=(const CObject&) = delete;
};

// Declares the three identity operations of a class derived from CObject.
#define DECLARE_CLASS()                   \
 public:                                  \
  DWORD GetClassId() override;            \
  const char* GetClassName() override;    \
  CObject* Cast(DWORD dwId) override;

// Defines them: cls is the class, id its identifier, base its direct base class.
#define IMPLEMENT_CLASS(cls, id, base)                                         \
  DWORD cls::GetClassId() { return (id); }                                     \
  const char* cls::GetClassName() { return #cls; }                             \
  CObject* cls::Cast(DWORD dwId) { return dwId == (id) ? this : base::Cast(dwId); }
