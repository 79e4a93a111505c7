// A row of mutually exclusive choices drawn as one rounded control, such as
// the playback mode. Each choice is its own button for the keyboard and for
// screen readers.
import QtQuick
import QtQuick.Controls
import Vellatone

Rectangle {
    id: group
    property var options: []
    property string current: ""
    // objectName of each choice: prefix + the choice.
    property string namePrefix: ""
    property string accessibleName: ""
    signal picked(string value)

    implicitWidth: row.implicitWidth + 4
    implicitHeight: 30
    radius: height / 2
    color: Theme.meterTrack
    Accessible.role: Accessible.Grouping
    Accessible.name: accessibleName

    Row {
        id: row
        anchors.centerIn: parent
        spacing: 2
        Repeater {
            model: group.options
            Button {
                id: choice
                required property string modelData
                objectName: group.namePrefix + modelData
                text: modelData
                checkable: true
                checked: group.current === modelData
                implicitHeight: group.height - 4
                leftPadding: 14
                rightPadding: 14
                font.pixelSize: Theme.smallSize + 1
                font.weight: checked ? Font.DemiBold : Font.Normal
                Accessible.name: group.accessibleName + " " + modelData
                onClicked: {
                    group.picked(modelData)
                    checked = Qt.binding(() => group.current === modelData)
                }
                contentItem: Text {
                    textFormat: Text.PlainText
                    text: choice.text
                    font: choice.font
                    color: choice.checked ? Theme.text : Theme.textMuted
                    horizontalAlignment: Text.AlignHCenter
                    verticalAlignment: Text.AlignVCenter
                }
                background: Rectangle {
                    radius: height / 2
                    color: choice.checked ? Theme.surface : "transparent"
                    border.color: choice.visualFocus ? Theme.accent : "transparent"
                    border.width: 2
                }
            }
        }
    }
}
