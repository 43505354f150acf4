#pragma once
// The operator's binding commands from the slot list's context menu: remove one
// binding, remove all, merge duplicates. Bound slots are kept at the lowest slot
// numbers and every command saves the table. Station thread only.

namespace quorvel::app {
class Station;
}

namespace quorvel::devices {

class BindingCommands {
public:
    explicit BindingCommands(app::Station& station) : station_(station) {}

    // Command 32778 on the row recorded at the right-click.
    void RemoveTheBind(int selectedRow) { RemoveBindAt(selectedRow); }
    // Command 32779.
    void RemoveAllBind();
    // Command 32798.
    void MergeRepeatBind();

    // False when `slot` has no row in the slot list (nothing changed).
    bool RemoveBindAt(int slot);
    void CompactBindings();

private:
    app::Station& station_;
};

}  // namespace quorvel::devices
