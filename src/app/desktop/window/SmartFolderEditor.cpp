// The smart-folder editor: a title, any or all, and rows built from the row templates, added and
// removed; the draft model turns them into the folder's condition.

#include <fmt/format.h>

#include "app/desktop/SmartFolderDraft.h"
#include "app/desktop/window/DesktopWindow.h"

namespace lectern::desktop {
namespace {

struct RuleWidgets {
  GtkWidget* box;
  GtkWidget* field;
  GtkWidget* op;
  GtkWidget* value;
};

struct Editor {
  std::optional<std::int64_t> id;
  GtkWidget* title = nullptr;
  GtkWidget* any = nullptr;
  GtkWidget* rules = nullptr;
  std::vector<RuleWidgets> rows;
};

GtkStringList* stringList(const std::vector<std::string>& items) {
  GtkStringList* list = gtk_string_list_new(nullptr);
  for (const auto& item : items) gtk_string_list_append(list, item.c_str());
  return list;
}

// The operators and the value's hint follow the chosen field.
void fieldChanged(RuleWidgets& rule) {
  const auto& fields = rowFields();
  const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(rule.field));
  if (index >= fields.size()) return;
  const RowField& field = fields[index];
  GtkStringList* operators = stringList(field.operators);
  gtk_drop_down_set_model(GTK_DROP_DOWN(rule.op), G_LIST_MODEL(operators));
  g_object_unref(operators);
  std::string hint;
  if (!field.values.empty()) {
    for (size_t i = 0; i < field.values.size(); ++i) hint += (i ? ", " : "") + field.values[i];
  } else if (field.keyPath == "date_added") {
    hint = "2 weeks (days, weeks, months, years)";
  }
  gtk_entry_set_placeholder_text(GTK_ENTRY(rule.value), hint.c_str());
}

void addRule(Editor& editor, const DraftRow& row) {
  RuleWidgets rule;
  rule.box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
  std::vector<std::string> labels;
  for (const auto& field : rowFields()) labels.push_back(field.label);
  GtkStringList* fields = stringList(labels);
  rule.field = gtk_drop_down_new(G_LIST_MODEL(fields), nullptr);  // takes the list
  rule.op = gtk_drop_down_new(nullptr, nullptr);
  rule.value = gtk_entry_new();
  gtk_widget_set_hexpand(rule.value, TRUE);
  gtk_drop_down_set_selected(GTK_DROP_DOWN(rule.field), static_cast<guint>(row.field));
  editor.rows.push_back(rule);
  fieldChanged(editor.rows.back());
  gtk_drop_down_set_selected(GTK_DROP_DOWN(rule.op), static_cast<guint>(row.op));
  gtk_editable_set_text(GTK_EDITABLE(rule.value), row.value.c_str());
  GtkWidget* remove = gtk_button_new_from_icon_name("list-remove-symbolic");
  gtk_widget_set_tooltip_text(remove, "Remove this rule");
  gtk_box_append(GTK_BOX(rule.box), rule.field);
  gtk_box_append(GTK_BOX(rule.box), rule.op);
  gtk_box_append(GTK_BOX(rule.box), rule.value);
  gtk_box_append(GTK_BOX(rule.box), remove);
  gtk_box_append(GTK_BOX(editor.rules), rule.box);
  g_object_set_data(G_OBJECT(rule.field), "lectern-editor", &editor);
  g_signal_connect(rule.field, "notify::selected", G_CALLBACK(+[](GObject* dropDown, GParamSpec*, gpointer data) {
                     auto* editor = static_cast<Editor*>(data);
                     for (auto& rule : editor->rows) {
                       if (G_OBJECT(rule.field) == dropDown) fieldChanged(rule);
                     }
                   }),
                   &editor);
  g_signal_connect(remove, "clicked", G_CALLBACK(+[](GtkButton* button, gpointer data) {
                     auto* editor = static_cast<Editor*>(data);
                     GtkWidget* box = gtk_widget_get_parent(GTK_WIDGET(button));
                     std::erase_if(editor->rows, [box](const RuleWidgets& rule) { return rule.box == box; });
                     gtk_box_remove(GTK_BOX(editor->rules), box);
                   }),
                   &editor);
}

SmartFolderDraft draftOf(const Editor& editor) {
  SmartFolderDraft draft;
  draft.title = gtk_editable_get_text(GTK_EDITABLE(editor.title));
  draft.any = gtk_drop_down_get_selected(GTK_DROP_DOWN(editor.any)) == 1;
  draft.rows.clear();
  for (const auto& rule : editor.rows) {
    draft.rows.push_back({gtk_drop_down_get_selected(GTK_DROP_DOWN(rule.field)),
                          gtk_drop_down_get_selected(GTK_DROP_DOWN(rule.op)),
                          gtk_editable_get_text(GTK_EDITABLE(rule.value))});
  }
  return draft;
}

}  // namespace

void DesktopWindow::runSmartFolderEditor(std::optional<std::int64_t> id) {
  SmartFolderDraft draft;
  if (id) {
    auto stored = controller_->smartFolder(*id);
    if (!stored) return showError(stored.error());
    auto read = SmartFolderDraft::fromPredicateText(stored->first, stored->second);
    if (!read) return showError(read.error());
    draft = std::move(*read);
  }
  auto* editor = new Editor;
  editor->id = id;
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 8);
  editor->title = gtk_entry_new();
  gtk_entry_set_placeholder_text(GTK_ENTRY(editor->title), "Title");
  gtk_editable_set_text(GTK_EDITABLE(editor->title), draft.title.c_str());
  gtk_box_append(GTK_BOX(box), editor->title);
  const char* anyAll[] = {"Match all of the rules", "Match any of the rules", nullptr};
  editor->any = gtk_drop_down_new_from_strings(anyAll);
  gtk_drop_down_set_selected(GTK_DROP_DOWN(editor->any), draft.any ? 1 : 0);
  gtk_box_append(GTK_BOX(box), editor->any);
  editor->rules = gtk_box_new(GTK_ORIENTATION_VERTICAL, 4);
  gtk_box_append(GTK_BOX(box), editor->rules);
  for (const auto& row : draft.rows) addRule(*editor, row);
  GtkWidget* add = gtk_button_new_with_label("Add Rule");
  gtk_widget_set_halign(add, GTK_ALIGN_START);
  g_signal_connect(add, "clicked", G_CALLBACK(+[](GtkButton*, gpointer data) { addRule(*static_cast<Editor*>(data), DraftRow{}); }),
                   editor);
  gtk_box_append(GTK_BOX(box), add);

  GtkWidget* dialog = adw_message_dialog_new(window(), id ? "Edit Smart Folder" : "New Smart Folder", nullptr);
  adw_message_dialog_add_responses(ADW_MESSAGE_DIALOG(dialog), "cancel", "Cancel", "ok", id ? "Save" : "Add", nullptr);
  adw_message_dialog_set_response_appearance(ADW_MESSAGE_DIALOG(dialog), "ok", ADW_RESPONSE_SUGGESTED);
  adw_message_dialog_set_default_response(ADW_MESSAGE_DIALOG(dialog), "ok");
  adw_message_dialog_set_close_response(ADW_MESSAGE_DIALOG(dialog), "cancel");
  adw_message_dialog_set_extra_child(ADW_MESSAGE_DIALOG(dialog), box);
  gtk_window_set_default_size(GTK_WINDOW(dialog), 640, -1);
  g_object_set_data(G_OBJECT(dialog), "lectern-window", this);
  g_signal_connect_data(
      dialog, "response", G_CALLBACK(+[](AdwMessageDialog* dialog, const char* response, gpointer data) {
        if (std::string_view(response) != "ok") return;
        auto* editor = static_cast<Editor*>(data);
        auto* window = static_cast<DesktopWindow*>(g_object_get_data(G_OBJECT(dialog), "lectern-window"));
        const SmartFolderDraft draft = draftOf(*editor);
        auto predicate = draft.predicateText();
        if (!predicate) return window->showError(predicate.error());
        const std::string title = draft.title.empty() ? std::string("Smart Folder") : draft.title;
        if (editor->id) {
          if (auto edited = window->controller_->editSmartFolder(*editor->id, title, *predicate); !edited) {
            window->showError(edited.error());
          }
        } else if (auto added = window->controller_->addSmartFolder(title, *predicate); !added) {
          window->showError(added.error());
        } else {
          window->controller_->selectSource({SourceKind::kSmartFolder, *added});
        }
      }),
      editor, +[](gpointer data, GClosure*) { delete static_cast<Editor*>(data); }, GConnectFlags{});
  showDialog(dialog);
}

}  // namespace lectern::desktop
