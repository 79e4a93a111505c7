// How the outputs are held against each other: Together or Instant, and
// whether slow speakers are waited for.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

RowLayout {
    spacing: Theme.gap

    Label {
        textFormat: Text.PlainText
        text: qsTr("Playback")
        color: Theme.textMuted
        font.pixelSize: Theme.smallSize
    }
    Segmented {
        options: ["Together", "Instant"]
        current: App.playbackMode
        namePrefix: "mode."
        accessibleName: qsTr("Playback mode")
        onPicked: (value) => App.setPlaybackMode(value)
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
