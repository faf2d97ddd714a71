// Follows a shared table for somebody else: hands the key of each entry that was added, changed or removed on to a
// member function, which tells by a lookup what has become of it, and news of the table's writer to another, if there
// is one. Made and destroyed by the one it works for, who may say how much he can be told of.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace Pondra {

template <class Table, class Owner>
class TableFollower final : public Table::Reactor {
 public:
  using Handler = void (Owner::*)(const typename Table::Key&);
  using WriterHandler = void (Owner::*)();
  using AppetiteOf = Appetite (Owner::*)() const;

  TableFollower(Owner& owner, std::shared_ptr<const Table> table, Handler handler, AppetiteOf appetiteOf,
                WriterHandler writerHandler)
      : Table::Reactor(std::move(table)),
        owner_(owner),
        handler_(handler),
        appetiteOf_(appetiteOf),
        writerHandler_(writerHandler) {}
  void handleEntry(const typename Table::Key& key) override { (owner_.*handler_)(key); }
  Appetite appetite() const override { return appetiteOf_ == nullptr ? Appetite::everything : (owner_.*appetiteOf_)(); }
  void handleWriter() override {
    if (writerHandler_ != nullptr) (owner_.*writerHandler_)();
  }

 private:
  Owner& owner_;
  const Handler handler_;
  const AppetiteOf appetiteOf_;
  const WriterHandler writerHandler_;
};

// Makes a follower, which hears of the table's changes from now on.
template <class Table, class Owner>
void follow(std::unique_ptr<TableFollower<Table, Owner>>& follower, Owner& owner,
            std::type_identity_t<std::shared_ptr<const Table>> table,
            typename TableFollower<Table, Owner>::Handler handler,
            typename TableFollower<Table, Owner>::AppetiteOf appetiteOf = nullptr,
            typename TableFollower<Table, Owner>::WriterHandler writerHandler = nullptr) {
  follower = std::make_unique<TableFollower<Table, Owner>>(owner, std::move(table), handler, appetiteOf, writerHandler);
}

}  // namespace Pondra
