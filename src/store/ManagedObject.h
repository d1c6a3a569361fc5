#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/Clock.h"
#include "store/EntitySchema.h"
#include "store/SqlValue.h"

namespace lectern {

class ObjectContext;

// One stored row as a context holds it, the base of every entity class; setters mark columns that
// the context writes at its next save. Used on its context's thread only.
class ManagedObject : public std::enable_shared_from_this<ManagedObject> {
 public:
  // Only a context makes objects: entity constructors take this key.
  class Key {
    friend class ObjectContext;
    Key() = default;
  };

  virtual ~ManagedObject();
  ManagedObject(const ManagedObject&) = delete;
  ManagedObject& operator=(const ManagedObject&) = delete;

  ObjectId objectID() const { return id_; }
  Entity entity() const { return id_.entity; }
  std::string_view entityName() const { return lectern::entityName(id_.entity); }
  // Throws InternalInconsistency when the context has been destroyed.
  ObjectContext& managedObjectContext() const;
  bool hasContext() const { return context_ != nullptr; }

  bool isInserted() const { return insertedSinceSave_ && !deleted_; }  // not yet saved
  bool isDeleted() const { return deleted_; }                          // deleted here, or gone from the store
  bool isUpdated() const { return changed_ != 0 && !insertedSinceSave_ && !deleted_; }
  bool hasChanges() const { return changed_ != 0 || insertedSinceSave_ || deleted_; }
  // The column changed since the last save (the "changed values" willSave looks at).
  bool changedSinceSave(int column) const { return (changed_ & (1u << column)) != 0; }

 protected:
  ManagedObject(ObjectContext& context, ObjectId id);

  const SqlValue& value(int column) const { return values_[static_cast<size_t>(column)]; }
  std::optional<std::string> textValue(int column) const { return textOf(value(column)); }
  std::int64_t integerValue(int column) const { return integerOf(value(column)).value_or(0); }
  std::optional<std::int64_t> optionalIntegerValue(int column) const { return integerOf(value(column)); }
  bool boolValue(int column) const { return integerValue(column) != 0; }
  double realValue(int column) const { return realOf(value(column)).value_or(0); }
  std::optional<Date> dateValue(int column) const { return dateOf(value(column)); }
  std::optional<std::int64_t> referenceValue(int column) const { return integerOf(value(column)); }

  // A value equal to the current one changes nothing (and is not a change willSave sees).
  // Answers whether the value changed. Changes to a deleted object are ignored.
  bool setValue(int column, SqlValue value);
  bool setText(int column, std::optional<std::string> text) { return setValue(column, sqlText(text)); }
  bool setInteger(int column, std::int64_t number) { return setValue(column, number); }
  bool setOptionalInteger(int column, std::optional<std::int64_t> number) {
    return setValue(column, number ? SqlValue(*number) : SqlValue());
  }
  bool setBool(int column, bool flag) { return setValue(column, std::int64_t{flag ? 1 : 0}); }
  bool setReal(int column, double number) { return setValue(column, number); }
  bool setDate(int column, std::optional<Date> date) { return setValue(column, sqlDate(date)); }
  bool setReference(int column, std::optional<std::int64_t> row) {
    return setValue(column, row ? SqlValue(*row) : SqlValue());
  }

  // Lifecycle hooks, called by the context on its thread.
  virtual void commonAwake() {}         // after insertion and after the first fetch
  virtual void willSave() {}            // before a save writes a changed or inserted object
  virtual void prepareForDeletion() {}  // when deleteObject is called
  virtual void didRefresh() {}          // values re-read from the store: drop derived caches

 private:
  friend class ObjectContext;

  ObjectContext* context_ = nullptr;
  ObjectId id_;
  SqlRow values_;
  std::uint32_t changed_ = 0;  // columns changed since the last save (written by the next one)
  bool insertedSinceSave_ = false;
  bool deleted_ = false;
  bool deleteFlushed_ = false;  // the store no longer has the row
  bool pendingListed_ = false;  // held by the context until the next save
  bool willSaveDone_ = false;
};

}  // namespace lectern
