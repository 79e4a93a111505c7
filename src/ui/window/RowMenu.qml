// A row's menu: switch it off or on, reconnect, move, remove.
import QtQuick
import QtQuick.Controls
import Vellatone

Menu {
    id: menu
    property int slot: -1
    property bool disabledRow: false
    property bool canReconnect: false
    property bool first: false
    property bool last: false
    property string rowName: ""
    signal renameAsked()
    signal removed()

    MenuItem {
        objectName: "row." + menu.slot + ".menu.rename"
        text: qsTr("Rename…")
        onTriggered: menu.renameAsked()
    }
    MenuItem {
        objectName: "row." + menu.slot + ".menu.disable"
        text: menu.disabledRow ? qsTr("Turn on") : qsTr("Turn off")
        onTriggered: App.toggleDisabled(menu.slot)
    }
    MenuItem {
        objectName: "row." + menu.slot + ".menu.reconnect"
        text: qsTr("Reconnect")
        enabled: menu.canReconnect
        onTriggered: App.reconnect(menu.slot)
    }
    MenuSeparator {}
    MenuItem {
        objectName: "row." + menu.slot + ".menu.moveUp"
        text: qsTr("Move up")
        enabled: !menu.first
        onTriggered: App.moveRowBy(menu.slot, -1)
    }
    MenuItem {
        objectName: "row." + menu.slot + ".menu.moveDown"
        text: qsTr("Move down")
        enabled: !menu.last
        onTriggered: App.moveRowBy(menu.slot, 1)
    }
    MenuSeparator {}
    MenuItem {
        objectName: "row." + menu.slot + ".menu.remove"
        text: qsTr("Remove")
        // Told first: removing the row takes this menu's strip away.
        onTriggered: {
            menu.removed()
            App.removeOutput(menu.slot)
        }
    }
}
