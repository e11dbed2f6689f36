#include "kes_event.h"

namespace kes {

void kesEventDispatcher::AddListener(int i_iCode, kesEventListener i_pListener)
{
    m_mListeners[i_iCode].push_back(i_pListener);
}

void kesEventDispatcher::DispatchEvent(const kesEvent& i_event) const
{
    auto found = m_mListeners.find(i_event.code);
    if (found == m_mListeners.end())
        return;
    for (kesEventListener listener : found->second)
        if (listener)
            listener(i_event);
}

} // namespace kes
