// A row's menu: switch it off or on, reconnect, give an AirPlay receiver its
// password or pair with it, measure how late it is, move, remove.
import QtQuick
import QtQuick.Controls
import Vellatone

Menu {
    id: menu
    property int slot: -1
    property bool disabledRow: false
    property bool canReconnect: false
    property bool canEnterPassword: false
    property bool canCalibrate: false
    property bool canPair: false
    property bool first: false
    property bool last: false
    property string rowName: ""
    signal renameAsked()
    signal removed()
    signal measureAsked()

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
    MenuItem {
        objectName: "row." + menu.slot + ".menu.password"
        text: qsTr("Enter password…")
        visible: menu.canEnterPassword
        height: visible ? implicitHeight : 0
        onTriggered: App.beginPassword(menu.slot)
    }
    MenuItem {
        objectName: "row." + menu.slot + ".menu.measure"
        text: qsTr("Measure delay…")
        visible: menu.canCalibrate
        height: visible ? implicitHeight : 0
        onTriggered: menu.measureAsked()
    }
    MenuItem {
        objectName: "row." + menu.slot + ".menu.pair"
        text: qsTr("Pair…")
        visible: menu.canPair
        height: visible ? implicitHeight : 0
        onTriggered: App.beginPairing(menu.slot)
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
