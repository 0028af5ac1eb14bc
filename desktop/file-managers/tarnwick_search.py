# "Search in Tarnwick" on the context menu of a folder, and of a folder's background, in GNOME
# Files. GNOME Files loads this through nautilus-python (Debian package python3-nautilus); the
# Dolphin service menu beside this file does the same for KDE.
from gi.repository import GLib, GObject, Nautilus


class TarnwickSearch(GObject.GObject, Nautilus.MenuProvider):
    def _item(self, name, folder):
        item = Nautilus.MenuItem(
            name=name,
            label="Search in Tarnwick",
            tip="Open this folder in Tarnwick with the search bar ready",
            icon="org.tarnwick.Tarnwick",
        )
        item.connect("activate", self._activate, folder)
        return item

    def _activate(self, _item, folder):
        path = folder.get_location().get_path()
        if path:
            # No shell: the path is one argument, whatever it holds. GLib reaps the child.
            GLib.spawn_async(["tarnwick", "--search", path], flags=GLib.SpawnFlags.SEARCH_PATH)

    # Nautilus 43 and later call these without the window argument that older ones pass first.
    def get_file_items(self, *args):
        files = args[-1]
        if len(files) != 1 or not files[0].is_directory() or files[0].get_uri_scheme() != "file":
            return []
        return [self._item("TarnwickSearch::folder", files[0])]

    def get_background_items(self, *args):
        folder = args[-1]
        if folder.get_uri_scheme() != "file":
            return []
        return [self._item("TarnwickSearch::background", folder)]
