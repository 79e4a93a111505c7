// The app mixer: a strip per app that plays or was heard before, under the
// groups that hold them, and the way to a new group.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

ColumnLayout {
    id: pane
    objectName: "appsPane"
    spacing: Theme.gap

    RowLayout {
        Layout.fillWidth: true
        Label {
            Layout.fillWidth: true
            textFormat: Text.PlainText
            text: qsTr("Each app at its own level. Groups lower all their apps at once.")
            elide: Text.ElideRight
            color: Theme.textMuted
            font.pixelSize: Theme.smallSize + 1
        }
        PillButton {
            objectName: "newGroupButton"
            text: qsTr("New group")
            enabled: App.mixer.available
            Accessible.name: text
            onClicked: editor.openFor("")
        }
    }

    ListView {
        id: list
        objectName: "appList"
        Layout.fillWidth: true
        Layout.fillHeight: true
        spacing: Theme.gap - 2
        clip: true
        model: App.mixer.strips
        boundsBehavior: Flickable.StopAtBounds
        ScrollBar.vertical: ScrollBar {}
        delegate: MixerEntry {
            width: ListView.view.width
            onEditRequested: (id) => editor.openFor(id)
        }

        Label {
            objectName: "emptyApps"
            anchors.centerIn: parent
            visible: list.count === 0
            horizontalAlignment: Text.AlignHCenter
            textFormat: Text.PlainText
            text: App.mixer.available
                  ? qsTr("No apps yet.\nAn app shows here once it plays a sound.")
                  : qsTr("The app mixer is not running.")
            color: Theme.textMuted
            font.pixelSize: Theme.bodySize
        }
    }

    GroupEditor {
        id: editor
        parent: Overlay.overlay
        x: Math.round((parent.width - width) / 2)
        y: Math.round((parent.height - height) / 3)
    }
}
