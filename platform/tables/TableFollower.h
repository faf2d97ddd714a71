// Follows a shared table for somebody else: hands the key of each entry that was added, changed or removed on to a
// member function, which tells by a lookup what has become of it. Made and destroyed by the one it works for.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace Pondra {

template <class Table, class Owner>
class TableFollower final : public Table::Reactor {
 public:
  using Handler = void (Owner::*)(const typename Table::Key&);

  TableFollower(Owner& owner, std::shared_ptr<const Table> table, Handler handler)
      : Table::Reactor(std::move(table)), owner_(owner), handler_(handler) {}
  void handleEntry(const typename Table::Key& key) override { (owner_.*handler_)(key); }

 private:
  Owner& owner_;
  const Handler handler_;
};

// Makes a follower, which hears of the table's changes from now on.
template <class Table, class Owner>
void follow(std::unique_ptr<TableFollower<Table, Owner>>& follower, Owner& owner,
            std::type_identity_t<std::shared_ptr<const Table>> table,
            typename TableFollower<Table, Owner>::Handler handler) {
  follower = std::make_unique<TableFollower<Table, Owner>>(owner, std::move(table), handler);
}

}  // namespace Pondra
