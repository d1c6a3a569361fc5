#include "store/ManagedObject.h"

#include "core/Error.h"
#include "core/Log.h"
#include "store/ObjectContext.h"

namespace lectern {

ManagedObject::ManagedObject(ObjectContext& context, ObjectId id) : context_(&context), id_(id) {}

ManagedObject::~ManagedObject() {
  if (context_ != nullptr) context_->forget(id_);
}

ObjectContext& ManagedObject::managedObjectContext() const {
  if (context_ == nullptr) {
    throw InternalInconsistency("The object's context is gone: " + id_.description());
  }
  return *context_;
}

bool ManagedObject::setValue(int column, SqlValue value) {
  const auto index = static_cast<size_t>(column);
  if (values_[index] == value) return false;
  if (deleted_ || context_ == nullptr) {
    logDebugMessage("ManagedObject", "Ignoring a change to a deleted object: {}", id_.description());
    return false;
  }
  context_->checkThread();
  context_->objectWillChange(*this);
  values_[index] = std::move(value);
  changed_ |= 1u << column;
  return true;
}

}  // namespace lectern
