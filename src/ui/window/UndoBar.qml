// After a row is removed: an offer to put it back, for a while.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

Rectangle {
    id: bar
    objectName: "undoBar"
    property bool offered: false
    visible: offered && App.canUndoRemove
    implicitHeight: 44
    implicitWidth: row.implicitWidth + 2 * Theme.pad
    radius: Theme.radius
    color: Theme.dark ? "#e8eaed" : "#23262c"
    Accessible.role: Accessible.AlertMessage
    Accessible.name: label.text

    function offer() {
        offered = true
        expiry.restart()
    }

    Timer {
        id: expiry
        interval: 10000
        onTriggered: bar.offered = false
    }

    RowLayout {
        id: row
        anchors.centerIn: parent
        spacing: Theme.pad
        Label {
            id: label
            textFormat: Text.PlainText
            text: qsTr("Removed %1.").arg(App.lastRemovedName)
            color: Theme.dark ? "#1d2026" : "#f3f4f6"
            font.pixelSize: Theme.bodySize
        }
        Button {
            objectName: "undoRemove"
            text: qsTr("Undo")
            flat: true
            palette.buttonText: Theme.accent
            Accessible.name: qsTr("Undo removing %1").arg(App.lastRemovedName)
            onClicked: {
                App.undoRemove()
                bar.offered = false
            }
        }
    }
}
