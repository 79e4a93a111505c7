// The one switch: starts sending to every output, and stops.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

RowLayout {
    spacing: Theme.gap

    Switch {
        id: toggle
        objectName: "startSwitch"
        checked: App.running
        text: App.running ? qsTr("Playing") : qsTr("Stopped")
        font.pixelSize: Theme.titleSize
        font.bold: true
        Accessible.name: App.running ? qsTr("Stop playing") : qsTr("Start playing")
        ToolTip.visible: hovered
        ToolTip.text: Accessible.name
        // The model decides; the switch shows what it says.
        onToggled: {
            App.startStop()
            checked = Qt.binding(() => App.running)
        }
    }
}
