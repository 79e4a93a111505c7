// A group of apps above its members: folded and unfolded with the arrow, its
// own level and mute (which lower every member), and the editor.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

FocusScope {
    id: header
    property string groupId
    property string name
    property real level: 1
    property bool muted: false
    property bool folded: false
    property int hue: 0
    property string rule
    signal editRequested(string groupId)

    implicitHeight: 44
    objectName: "group." + groupId
    activeFocusOnTab: true
    Accessible.role: Accessible.Grouping
    Accessible.name: qsTr("Group %1").arg(name)
    Accessible.description: rule

    Keys.onLeftPressed: if (!folded) App.mixer.toggleGroupFolded(groupId)
    Keys.onRightPressed: if (folded) App.mixer.toggleGroupFolded(groupId)

    Rectangle {
        anchors.fill: parent
        radius: Theme.radius
        color: Qt.rgba(Theme.rowColour(header.hue).r, Theme.rowColour(header.hue).g,
                       Theme.rowColour(header.hue).b, Theme.dark ? 0.18 : 0.12)
        border.color: header.activeFocus ? Theme.accent : "transparent"
        border.width: 2

        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: Theme.gap
            anchors.rightMargin: Theme.gap
            spacing: Theme.gap + 4

            ToolButton {
                objectName: "group." + header.groupId + ".fold"
                Layout.preferredWidth: 28
                text: header.folded ? "\u25B8" : "\u25BE"
                font.pixelSize: 14
                Accessible.name: header.folded ? qsTr("Show the apps of %1").arg(header.name)
                                               : qsTr("Hide the apps of %1").arg(header.name)
                onClicked: App.mixer.toggleGroupFolded(header.groupId)
            }
            Rectangle {
                Layout.preferredWidth: 10
                Layout.preferredHeight: 10
                radius: 5
                color: Theme.rowColour(header.hue)
                Accessible.ignored: true
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 0
                Label {
                    objectName: "group." + header.groupId + ".name"
                    Layout.fillWidth: true
                    textFormat: Text.PlainText
                    text: header.name
                    elide: Text.ElideRight
                    font.pixelSize: Theme.bodySize + 1
                    font.weight: Font.Bold
                    color: Theme.text
                }
                Label {
                    Layout.fillWidth: true
                    visible: header.rule !== ""
                    textFormat: Text.PlainText
                    text: header.rule
                    elide: Text.ElideRight
                    font.pixelSize: Theme.smallSize
                    color: Theme.textMuted
                }
            }
            Slider {
                id: slider
                objectName: "group." + header.groupId + ".level"
                Layout.preferredWidth: 200
                from: 0
                to: 1
                value: header.level
                opacity: header.muted ? 0.5 : 1
                Accessible.name: qsTr("Level of the group %1").arg(header.name)
                ToolTip.visible: pressed || hovered
                ToolTip.text: Math.floor(value * 100) + "%"
                onMoved: App.mixer.setGroupLevel(header.groupId, value)
            }
            Label {
                Layout.preferredWidth: 40
                textFormat: Text.PlainText
                horizontalAlignment: Text.AlignRight
                text: header.muted ? qsTr("muted") : Math.floor(slider.value * 100) + "%"
                color: Theme.textMuted
                font.pixelSize: Theme.smallSize + 1
                Accessible.ignored: true
            }
            ChipButton {
                objectName: "group." + header.groupId + ".mute"
                text: qsTr("M")
                onColour: Theme.warn
                checked: header.muted
                Accessible.name: header.muted ? qsTr("Unmute the group %1").arg(header.name)
                                              : qsTr("Mute the group %1").arg(header.name)
                onToggled: { App.mixer.toggleGroupMute(header.groupId); checked = Qt.binding(() => header.muted) }
            }
            ToolButton {
                objectName: "group." + header.groupId + ".edit"
                Layout.preferredWidth: 64
                text: qsTr("Edit…")
                Accessible.name: qsTr("Edit the group %1").arg(header.name)
                onClicked: header.editRequested(header.groupId)
            }
        }
    }
}
