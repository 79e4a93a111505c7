// How the outputs are held against each other: Together or Instant, and
// whether slow speakers are waited for.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

RowLayout {
    spacing: Theme.gap

    Label {
        text: qsTr("Playback")
        color: Theme.textMuted
        font.pixelSize: Theme.smallSize
    }
    Row {
        spacing: 0
        Accessible.role: Accessible.Grouping
        Accessible.name: qsTr("Playback mode")
        Repeater {
            model: ["Together", "Instant"]
            Button {
                required property string modelData
                required property int index
                objectName: "mode." + modelData
                text: modelData
                checkable: true
                checked: App.playbackMode === modelData
                autoExclusive: true
                highlighted: checked
                Accessible.name: qsTr("Playback mode %1").arg(modelData)
                onClicked: App.setPlaybackMode(modelData)
            }
        }
    }
    CheckBox {
        objectName: "syncSlowSpeakers"
        text: qsTr("sync slow speakers")
        checked: App.syncSlowSpeakers
        Accessible.name: text
        onToggled: {
            App.setSyncSlowSpeakers(checked)
            checked = Qt.binding(() => App.syncSlowSpeakers)
        }
    }
}
