#include "SharedObjectList.h"

#include "ObjectSequence.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/CoreClasses/SharedObjectList";

}  // namespace

SharedObjectList::IterateCallback::~IterateCallback() = default;

SharedObjectList::SharedObjectList() : members_(new ObjectSequence) {}

SharedObjectList::~SharedObjectList() {
  RemoveAll();
  delete members_;
}

bool SharedObjectList::AddToBack(SharedObject* object) {
  if (!members_->PushBack(object)) return false;
  if (object) object->AddRef(kFile, "Orvane::SharedObjectList::AddToBack", 149);
  return true;
}

bool SharedObjectList::AddToFront(SharedObject* object) {
  if (!members_->PushFront(object)) return false;
  if (object) object->AddRef(kFile, "Orvane::SharedObjectList::AddToFront", 139);
  return true;
}

std::size_t SharedObjectList::Count() {
  return members_->Count();
}

std::size_t SharedObjectList::Find(SharedObject* object) {
  return members_->Find(object);
}

SharedObject* SharedObjectList::Get(std::size_t index) {
  return index < members_->Count() ? members_->At(index) : nullptr;
}

// A member that goes with its reference may change the list from its destructor: it is unlinked by
// its pointer, which is only compared, and not by a position that may have moved.
SharedObject* SharedObjectList::GetAndRemove(std::size_t index) {
  if (index >= members_->Count()) return nullptr;
  SharedObject* const object = members_->At(index);
  if (object) object->DecRef(kFile, "Orvane::SharedObjectList::GetAndRemove", 217);
  members_->Erase(object);
  return object;
}

bool SharedObjectList::Remove(SharedObject* object) {
  if (!members_->Erase(object)) return false;
  if (object) object->DecRef(kFile, "Orvane::SharedObjectList::Remove", 163);
  return true;
}

bool SharedObjectList::Remove(std::size_t index) {
  if (index >= members_->Count()) return false;
  SharedObject* const object = members_->At(index);
  if (object) object->DecRef(kFile, "Orvane::SharedObjectList::Remove", 175);
  members_->Erase(object);
  return true;
}

void SharedObjectList::RemoveAll() {
  while (members_->Count() > 0) GetAndRemove(0);
}

void SharedObjectList::Iterate(IterateCallback* callback) {
  if (!callback) return;
  for (std::size_t i = 0; i < members_->Count(); ++i) {
    if (!callback->Callback(members_->At(i), i)) return;
  }
}

void SharedObjectList::Reserve(std::size_t members) {
  members_->Reserve(members);
}

}  // namespace Orvane
